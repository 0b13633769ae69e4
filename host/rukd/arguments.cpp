#include "arguments.h"

#include "ap_msg/ap_msg.h"
#include "eth_raw/eth_raw.h"

#include <cstdio>
#include <string_view>

namespace {

constexpr char kHelp[] =
    "usage: rukd [--frames] [--user NAME | --as-root] [INDEX]\n"
    "Serve register, picture and firmware requests of other processes (see ruk-ipc).\n"
    "  INDEX        interface, 0 = eth0; 1 and 2 are refused: no request reaches them\n"
    "  --frames     dump every frame on standard output\n"
    "  --user NAME  serve with this user's rights to files; of root's only the three below stay\n"
    "  --as-root    serve as root although others may send requests: they have root's files then\n"
    "  --help       this text          --version  version\n"
    "Environment: APIPC_DIR  directory of the message sockets, /run/apipc without it\n"
    "             APCARD_SLOT  slot of the card that this runs on, 0 without it\n"
    "Needs CAP_NET_RAW and CAP_NET_ADMIN (raw sockets) and CAP_SYS_NICE (real-time threads).\n"
    "SIGUSR1 prints all counters on standard output, as one line of JSON.\n"
    "Ends on SIGTERM, SIGINT or SIGQUIT with status 0; 1 when something is missing, 2 wrong\n"
    "arguments. A crash logs \"task_die!!!\" and its stack, then ends with status 0 as well.\n";

int show(const char *text) {
    if (fputs(text, stdout) >= 0 && fflush(stdout) == 0) {
        return 0;
    }
    perror("rukd: standard output");
    return kMissing;
}

Arguments refuse(const char *word, const char *why) {
    (void)fprintf(stderr, "rukd: argument '%s': %s (see rukd --help)\n", word, why);
    return {.status = kUsage};
}

// An interface is known by its digit. Requests name no interface: one is chosen for all of them.
Arguments &take_index(Arguments &arguments, const char *word) {
    constexpr std::string_view kDigits = "012";
    static_assert(kDigits.size() == MAX_ETH);
    const std::string_view text = word;
    const size_t index = text.size() == 1 ? kDigits.find(text[0]) : std::string_view::npos;
    if (index == std::string_view::npos) {
        return arguments = refuse(word, "not an interface index 0 to 2");
    }
    arguments.index = static_cast<int>(index);
    if (GetIndexById(GetIdByIndex(arguments.index)) != arguments.index) {
        return arguments = refuse(word, "requests go to interface 0 only, none would reach this");
    }
    return arguments;
}

} // namespace

Arguments parse(int argc, char **argv) {
    Arguments arguments;
    bool has_index = false;
    for (int i = 1; i < argc && arguments.status < 0; i++) {
        const std::string_view word = argv[i];
        if (word == "--help") {
            arguments.status = show(kHelp);
        } else if (word == "--version") {
            arguments.status = show("rukd " RUKD_VERSION "\n");
        } else if (word == "--frames") {
            print_flag = 1;
        } else if (word == "--as-root") {
            arguments.as_root = true;
        } else if (word == "--user" && i + 1 < argc && arguments.user == nullptr) {
            arguments.user = argv[++i];
        } else if (word == "--user") {
            arguments = refuse(argv[i], "one user's name must follow");
        } else if (word.starts_with('-')) {
            arguments = refuse(argv[i], "no such option");
        } else if (!has_index) {
            has_index = true;
            (void)take_index(arguments, argv[i]);
        } else {
            arguments = refuse(argv[i], "one interface index is enough");
        }
    }
    if (arguments.status < 0 && arguments.as_root && arguments.user != nullptr) {
        return refuse("--as-root", "not together with --user");
    }
    return arguments;
}
