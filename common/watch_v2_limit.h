// The system's limit of inotify watches per user, and the rule by which it is raised when it is met.
#pragma once

// The limit; 8192 when its file holds no number, 0 when the file cannot be opened.
unsigned long get_max_user_watches();

// Raises the limit to desired_watches, never above 262144 and never down. Returns the limit as it was before.
unsigned long set_max_user_watches(unsigned long desired_watches);

// What to do when a watch met the limit: raises it. 0 when the watch is worth another attempt now, else the
// errno to give up with.
int raise_max_user_watches();
