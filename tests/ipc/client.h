// client.h - ruk-ipc as a process of its own, in a message directory of its own.
#ifndef RUK_TESTS_IPC_CLIENT_H
#define RUK_TESTS_IPC_CLIENT_H

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace test {

using Words = std::vector<std::string>;

struct Finished {
    int status; // exit status, or 1000 + n when signal n ended it
    std::string out;
    std::string err;
    long ms;
};

/** Run ruk-ipc with these arguments; `in_child` changes the process before it becomes ruk-ipc. */
Finished run_client(const Words &arguments, const std::function<void()> &in_child = nullptr);

/** A temporary directory with room for files, and APIPC_DIR in it. */
class ClientTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    [[nodiscard]] std::string path(const char *name) const {
        return root_ / name;
    }
    /** How many entries of the directory begin so. */
    [[nodiscard]] int files_named(const std::string &beginning) const;

    std::filesystem::path root_;
    std::filesystem::path messages_;
};

bool contains(const std::string &text, const std::string &part);

std::string file_content(const std::string &name);
void make_file(const std::string &name, const std::string &content);

} // namespace test

#endif
