// The program's entry: options, the table of tool commands, and the service's first steps.
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/command.h"
#include "kxamazon/global.h"
#include "kxamazon/service.h"

namespace
{

struct command_t {
    const char* cmd_name;
    int (*command)(int argc, char** argv);
    int min_argc; // least number of words, the command's name included
};

const command_t commands[] = {
    {"info", command_info, 1},     {"ls", command_ls, 2},
    {"put", command_put, 3},       {"get", command_get, 3},
    {"mkdir", command_mkdir, 1},   {"rm", command_rm, 1},
    {"delta", command_delta, 1},   {"sync", command_sync, 3},
    {"stat", command_stat, 2},     {"dump-json", command_dump_json, 2},
    {"upload", command_upload, 2}, {nullptr, nullptr, 0},
};

[[noreturn]] void usage(const char* prog, const char* /* arg */)
{
    printf("AmazonCloudDrive utitlity and sync server\n"
           "JSON library: parson\n"
           "parson is distributed under the MIT licence.\n"
           "\n"
           "Usage:\n"
           "  # %s -h                           ... show this help\n"
           "  # %s [-v 0..3]                    ... start service\n",
           prog, prog);
    exit(1);
}

void graceful_exit(int sig)
{
    global.exit_flag = sig;
}

bool open_event_log()
{
    global.log_fp = fopen(kx_event_log_path, "a");
    if (!global.log_fp)
        return false;
    setvbuf(global.log_fp, nullptr, _IOLBF, 0);
    return true;
}

// Reads the options up to "--" and returns the index of the tool command behind it; 0 when there is none.
int read_options(int argc, char** argv)
{
    for (int i = 1; i < argc; i++) {
        if (argv[i][0] != '-')
            usage(argv[0], argv[i]);
        // Only the first letter counts: -verbose is -v.
        switch (argv[i][1]) {
        case 'h':
            usage(argv[0], argv[i]);
        case 'V':
            global.debug_curl = 1;
            break;
        case 'd':
            g_nosystemd = 1;
            break;
        case 'v':
            if (++i == argc || argv[i][0] == '-')
                usage(argv[0], argv[i - 1]);
            g_verbose = static_cast<int>(strtol(argv[i], nullptr, 10));
            break;
        case '-':
            if (++i == argc)
                usage(argv[0], argv[i - 1]);
            return i;
        }
    }
    return 0;
}

int run_command(const char* prog, int argc, char** argv)
{
    for (const command_t* row = commands; row->cmd_name; row++) {
        if (strcmp(row->cmd_name, argv[0]) == 0 && argc >= row->min_argc) {
            g_nosystemd = 1;
            return row->command(argc, argv);
        }
    }
    usage(prog, argv[0]);
}

int run_service(const char* prog)
{
    if (getppid() != 1 && !g_nosystemd) {
        printf("This program should be started by systemd.\n");
        usage(prog, nullptr);
    }
    signal(SIGUSR1, graceful_exit);
    rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &unlimited);
    return service();
}

} // namespace

int main(int argc, char** argv)
{
    setlocale(LC_ALL, "en_US.utf8");
    global = {};
    if (!open_event_log()) {
        LOG_ERROR("Could not open log file, exiting.\n");
        return 0; // quiet on purpose: no error status
    }
    if (int command = read_options(argc, argv))
        return run_command(argv[0], argc - command, argv + command);
    return run_service(argv[0]);
}
