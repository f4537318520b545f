// The bus daemon: carries calls and events between the processes that connect to its socket.

#include "server.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char DEFAULT_SOCKET[] = PTZD_UBUS_SOCKET;
constexpr int EXIT_USAGE = 1;
constexpr int EXIT_SOCKET = 255;

int usage(const char* program)
{
    fprintf(stderr,
            "Usage: %s [OPTIONS]\n"
            "  -s SOCKET     listen at this path (default: %s)\n"
            "  -A DIRECTORY  accepted and not used: whoever can open the socket may do everything\n",
            program, DEFAULT_SOCKET);
    return EXIT_USAGE;
}

void makeDefaultDirectory()
{
    const std::string_view path = DEFAULT_SOCKET;
    const std::string directory(path.substr(0, path.rfind('/')));
    const mode_t before = umask(0);
    mkdir(directory.c_str(), 0755); // mostly there already; where it is needed and missing, listening fails
    umask(before);
}

// A descriptor a client: as many as we may have.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char** argv)
{
    const char* socketPath = DEFAULT_SOCKET;
    opterr = 0;
    for (int option = 0; (option = getopt(argc, argv, "s:A:")) != -1;) {
        if (option == 's')
            socketPath = optarg;
        else if (option != 'A')
            return usage(argv[0]);
    }
    if (optind < argc)
        return usage(argv[0]);

    raiseDescriptorLimit();
    makeDefaultDirectory();
    if (uloop_init() != 0) {
        perror("ubusd");
        return EXIT_FAILURE;
    }
    std::signal(SIGHUP, SIG_IGN); // asks for access rights to be read again, and there are none
    Server server;
    if (!server.listenAt(socketPath)) {
        perror("usock");
        return EXIT_SOCKET;
    }
    if (!uloop_cancelled) // by a signal that came already
        uloop_run();
    return EXIT_SUCCESS;
}
