// The tool commands. Each receives its own words, argv[0] being the command's name; the result is the exit
// status.
#pragma once

int command_info(int argc, char** argv);
int command_ls(int argc, char** argv);
int command_put(int argc, char** argv);
int command_get(int argc, char** argv);
int command_mkdir(int argc, char** argv);
int command_rm(int argc, char** argv);
int command_delta(int argc, char** argv);
int command_sync(int argc, char** argv);
int command_stat(int argc, char** argv);
int command_dump_json(int argc, char** argv);
int command_upload(int argc, char** argv);
