// Standard output of a host, moved to the terminal that it was started from.
#include "main/main.h"

#include "board/board.h"
#include "log/write.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A terminal's name with its line feed and a terminating zero.
using Name = std::array<char, 32>;

// Older hosts rely on these very bits, which are those of the file mode 0666: read and write,
// exclusive, not the controlling terminal. O_CREAT is not among them, so no mode is needed and the
// kernel ignores the rest.
constexpr int kOpenFlags = 0x1B6;
static_assert((kOpenFlags & O_CREAT) == 0, "open would take a mode that nobody passes");

// Leaves an empty name when the command says nothing. False: no name that could be used.
bool ask_for_terminal(Name &name) {
    FILE *answer = my_popen("tty", "r");
    if (answer == nullptr) {
        LOG("ptoc: run tty: %s\n", strerror(errno));
        return false;
    }
    if (fgets(name.data(), static_cast<int>(name.size()), answer) == nullptr) {
        name[0] = '\0';
    }
    (void)fclose(answer); // also waits for the command's end, as the C library keeps its id
    const size_t len = strlen(name.data());
    if (len == 0) {
        return true;
    }
    if (name[len - 1] != '\n') {
        // Without its end it would be the name of something else.
        LOG("ptoc: name of terminal '%s': no line of at most %zu characters\n", name.data(),
            name.size() - 2);
        return false;
    }
    name[len - 1] = '\0';
    return true;
}

} // namespace

int ptoc(void) {
    Name name{};
    if (!ask_for_terminal(name)) {
        return -1;
    }
    const int missing = access(name.data(), F_OK);
    if (missing != 0) {
        return missing;
    }
    const int terminal = open(name.data(), kOpenFlags);
    if (terminal < 0) {
        return terminal;
    }
    const int output = dup2(terminal, STDOUT_FILENO);
    if (output < 0) {
        LOG("err in dup2\n");
        (void)close(terminal);
        return 0;
    }
    return output; // the terminal's own descriptor stays open
}
