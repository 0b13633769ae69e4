// files_test.cpp - --input and --output.
#include "files.h"

#include "client.h"
#include "service.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

using test::Bytes;
using test::contains;
using test::file_content;
using test::make_file;
using test::run_client;
using test::Service;

using Files = test::ClientTest;

std::string text_of(const Bytes &bytes) {
    return {bytes.begin(), bytes.end()};
}

TEST_F(Files, OutputHoldsTheBytesRead) {
    const Service service(test::answer_well);
    const auto run = run_client({"--slot", "2", "read", "20000", "4000", "--output", path("o")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "read of 4000 bytes at 0x00020000, slot 0x2, model 0x0: done, saved in " +
                           path("o") + "\n");
    EXPECT_EQ(file_content(path("o")), text_of(test::memory_at(0x20000, 4000)));
    EXPECT_EQ(files_named("o"), 1);
    EXPECT_EQ(files_named(".ruk-ipc"), 0); // no temporary one
}

TEST_F(Files, OutputMayHaveTheLongestName) {
    const Service service(test::answer_well);
    const std::string longest(255, 'n');
    EXPECT_EQ(run_client({"read", "0", "4", "--output", path(longest.c_str())}).status, 0);
    EXPECT_TRUE(std::filesystem::exists(path(longest.c_str())));
}

TEST_F(Files, OutputReplacesAFileAndKeepsItsMode) {
    const Service service(test::answer_well);
    make_file(path("o"), "older and longer");
    ASSERT_EQ(chmod(path("o").c_str(), 01640), 0);
    ASSERT_EQ(symlink("o", path("link").c_str()), 0);
    EXPECT_EQ(run_client({"read", "1000", "4", "--output", path("link")}).status, 0);
    EXPECT_EQ(file_content(path("o")), "pqrs");
    EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
    struct stat found {};
    ASSERT_EQ(stat(path("o").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 01640U);
}

TEST_F(Files, OutputIsBornAsTheUmaskSays) {
    const Service service(test::answer_well);
    EXPECT_EQ(
        run_client({"read", "0", "1", "--output", path("o")}, [] { (void)umask(027); }).status, 0);
    struct stat found {};
    ASSERT_EQ(stat(path("o").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0640U);
}

TEST_F(Files, OutputIsLeftAloneWhenTheReadFails) {
    const Service service([](const Bytes &request) {
        if (test::number_at(request, 32, 4) == 0) {
            test::answer_well(request);
        } else {
            test::refuse(request);
        }
    });
    make_file(path("old"), "kept");
    EXPECT_EQ(run_client({"read", "0", "2000", "--output", path("old")}).status, 1);
    EXPECT_EQ(run_client({"read", "0", "2000", "--output", path("new")}).status, 1);
    EXPECT_EQ(file_content(path("old")), "kept");
    EXPECT_EQ(files_named("old"), 1);
    EXPECT_EQ(files_named("new"), 0);
    EXPECT_EQ(files_named(".ruk-ipc"), 0);
}

TEST_F(Files, OutputThatCannotBeWrittenIsAFailure) {
    const Service service(test::answer_well);
    auto run = run_client({"read", "0", "4", "--output", path("no/such")});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "ruk-ipc: --output: cannot create '" + path("no/such") +
                           "': No such file or directory\n");
    run = run_client({"read", "0", "4", "--output", "/dev/full"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ruk-ipc: --output: cannot write '/dev/full': No space left on device\n");
    run = run_client({"read", "0", "4", "--output", root_.string()});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(contains(run.err, "Is a directory")) << run.err;
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST_F(Files, OutputThatDoesNotFitLeavesTheOldFileAndNoOther) {
    const Service service(test::answer_well);
    make_file(path("o"), "kept");
    const auto run = run_client({"read", "0", "4000", "--output", path("o")}, [] {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{.rlim_cur = 1000, .rlim_max = 1000};
        (void)setrlimit(RLIMIT_FSIZE, &limit);
    });
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "ruk-ipc: --output: cannot write '" + path("o") + "': File too large\n");
    EXPECT_EQ(file_content(path("o")), "kept");
    EXPECT_EQ(files_named("o"), 1);
}

TEST_F(Files, InputMayBeAsLongAsTheLongestTransfer) {
    make_file(path("i"), "12345");
    Bytes bytes;
    EXPECT_EQ(ipc::read_file(path("i"), 5, bytes), "");
    EXPECT_EQ(text_of(bytes), "12345");
    EXPECT_EQ(ipc::read_file(path("i"), 4, bytes), "'" + path("i") + "' has more than 4 bytes");
}

TEST_F(Files, InputIsWrittenInPieces) {
    const Service service(test::answer_well);
    const Bytes content = test::memory_at(5, 3001);
    make_file(path("i"), text_of(content));
    for (const char *command : {"write", "write-ack"}) {
        const size_t before = service.received(0).size();
        const auto run = run_client({"--slot", "2", command, "40000", "--input", path("i")});
        EXPECT_EQ(run.status, 0) << run.err;
        const auto messages = service.received(before + 3);
        ASSERT_EQ(messages.size(), before + 3);
        Bytes written;
        for (size_t i = 0; i < 3; i++) {
            const Bytes &message = messages[before + i];
            EXPECT_EQ(test::number_at(message, 32, 4), 0x40000 + i * 1400);
            const size_t len = test::number_at(message, 36, 2);
            ASSERT_EQ(message.size(), 40 + len);
            written.insert(written.end(), message.begin() + 38,
                           message.begin() + 38 + static_cast<long>(len));
        }
        EXPECT_EQ(written, content);
    }
}

TEST_F(Files, InputIsWrittenUpToTheFirstPieceThatIsRefused) {
    const Service service([](const Bytes &request) {
        if (test::number_at(request, 32, 4) == 1400) {
            test::refuse(request);
        } else {
            test::answer_well(request);
        }
    });
    make_file(path("i"), std::string(4000, 'x'));
    const auto run = run_client({"--slot", "2", "write-ack", "0", "--input", path("i")});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(contains(run.err, "write-ack of 1400 bytes at 0x00000578")) << run.err;
    EXPECT_TRUE(contains(run.err, "the first 1400 of 4000 bytes were answered before")) << run.err;
    EXPECT_EQ(run_client({"hello"}).status, 0);
    EXPECT_EQ(service.received(3).size(), 3U); // two pieces and the greeting
}

// Below 10000000 nobody acknowledges, from there on they do.
TEST_F(Files, InputAcrossTheLimitOfAcknowledgementIsNotAllAcknowledged) {
    const Service service([](const Bytes &request) {
        if (test::number_at(request, 32, 4) >= 0x10000000) {
            test::answer_well(request);
        }
    });
    make_file(path("i"), std::string(2800, 'x'));
    const auto run = run_client({"write-ack", "0ffffa88", "--input", path("i")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "handed over; not acknowledged")) << run.out;
    EXPECT_EQ(service.received(2).size(), 2U);
}

TEST_F(Files, InputThatCannotBeReadIsAFailure) {
    auto run = run_client({"write", "0", "--input", path("none")});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              "ruk-ipc: --input: cannot open '" + path("none") + "': No such file or directory\n");
    run = run_client({"write", "0", "--input", root_.string()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ruk-ipc: --input: cannot read '" + root_.string() + "': Is a directory\n");
    make_file(path("empty"), "");
    run = run_client({"write", "0", "--input", path("empty")});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ruk-ipc: --input: '" + path("empty") + "' is empty: nothing to write\n");
    run = run_client({"write", "0", "--input", "/dev/zero"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ruk-ipc: --input: '/dev/zero' has more than 16777216 bytes\n");
}

TEST_F(Files, InputMustEndBeforeTheAddressesDo) {
    make_file(path("i"), "123");
    const auto run = run_client({"write", "fffffffe", "--input", path("i")});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "ruk-ipc: write: 3 bytes from 0xfffffffe on end behind the last address "
                       "0xffffffff\nTry 'ruk-ipc --help'.\n");
}

TEST_F(Files, OfPicturesMustBeThere) {
    const auto run = run_client({"put-picture", "0", "1", "1", path("none.bmp")});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ruk-ipc: put-picture: no file '" + path("none.bmp") + "'\n");
}

// The service would log it and send no reply.
TEST_F(Files, OfPicturesMustHoldThem) {
    const Service service(test::do_nothing);
    struct Case {
        const char *name;
        std::string content;
        std::string complaint; // none: it is handed over
    };
    const std::string head = std::string("BM").append(8, 0) + std::string("\x10\0\0\0", 4);
    for (const Case &c :
         {Case{"p.txt", std::string(12, 'p'), ""},
          Case{"p.txt", std::string(11, 'p'),
               "has 11 bytes, 2 x 2 pixels from its byte 0 on need "
               "12"},
          Case{"p.BMP", std::string(12, 'p'), ""},
          Case{"p.bmp", head + std::string(2 + 12, 'p'), ""},
          Case{"p.bmp", head + std::string(1 + 12, 'p'),
               "has 27 bytes, 2 x 2 pixels from its byte 16 on need 28"},
          Case{"p.bmp", "BM", "has 2 bytes, 2 x 2 pixels from its byte 14 on need 26"}}) {
        make_file(path(c.name), c.content);
        const auto run = run_client({"put-picture", "0", "2", "2", path(c.name)});
        EXPECT_EQ(run.status, c.complaint.empty() ? 0 : 1) << run.err;
        EXPECT_EQ(run.err, c.complaint.empty() ? ""
                                               : "ruk-ipc: put-picture: '" + path(c.name) + "' " +
                                                     c.complaint + "\n");
    }
    EXPECT_EQ(run_client({"hello", "--timeout", "1"}).status, 3);
    EXPECT_EQ(service.received(4).size(), 4U); // the three that fit, and the greeting
}

// A head in front of it would make it longer than 32 bits can count.
TEST_F(Files, OfFirmwareFitTheirHead) {
    const Service service(test::do_nothing);
    make_file(path("f.bin"), "");
    std::filesystem::resize_file(path("f.bin"), 0xFFFFFF00); // takes no room
    const auto refused = run_client({"update", "19", path("f.bin")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "ruk-ipc: update: '" + path("f.bin") +
                               "' has 4294967040 bytes, a firmware has at most 4294967039\n");
    const test::Words asked[] = {{"--timeout", "50", "update", "16", path("f.bin")},
                                 {"--timeout", "50", "update", "19", path("g.bin")}};
    make_file(path("g.bin"), "");
    std::filesystem::resize_file(path("g.bin"), 0xFFFFFEFF);
    for (const test::Words &words : asked) {
        EXPECT_EQ(run_client(words).status, 3); // by the service, which is silent here
    }
    EXPECT_EQ(service.received(2).size(), 2U);
}

TEST_F(Files, OfPicturesAreNoPipesAndNoDirectories) {
    ASSERT_EQ(mkfifo(path("p.bmp").c_str(), 0600), 0);
    for (const std::string &name : {path("p.bmp"), root_.string()}) {
        const auto run = run_client({"put-picture", "0", "1", "1", name});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err,
                  "ruk-ipc: put-picture: '" + name + "' is a pipe or a directory, not a file\n");
    }
}

} // namespace
