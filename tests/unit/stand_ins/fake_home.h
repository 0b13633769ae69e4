// fake_home.h - a /home of the test's own, and the board's shell working in it.
//
// Linked with --wrap=open,stat,access,my_system. Paths in /home lead into a directory of the test;
// rm and touch are carried out there, every other command is only noted.
#ifndef TESTS_UNIT_STAND_INS_FAKE_HOME_H
#define TESTS_UNIT_STAND_INS_FAKE_HOME_H

#include <functional>
#include <string>
#include <vector>

#include "helpers/temp_files.h"

class FakeHome {
public:
    FakeHome();
    ~FakeHome();
    FakeHome(const FakeHome &) = delete;
    FakeHome &operator=(const FakeHome &) = delete;

    /** Where a file in /home really lies. */
    [[nodiscard]] std::string path(const std::string &name) const {
        return directory_.path(name);
    }

private:
    test::TempDirectory directory_;
};

/** The shell's command lines since the FakeHome was made. */
std::vector<std::string> shell_commands();

/** What commands other than rm and touch return. */
void shell_answers(int status);

/** Called when a command line is run, before it is. */
void shell_calls(std::function<void(const std::string &command)> hook);

#endif
