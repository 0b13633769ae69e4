// The tool with one failing call after the other: it ends, and what it says is true.
#include "card_and_files.h"

#include <cerrno>
#include <filesystem>

namespace failing {

namespace {

using bed::Capture;
using bed::Card;
using bed::pattern;

// What every command calls before it comes to its own work.
std::vector<Failure> failures_of_the_link() {
    return single_and_lasting({{Call::kMalloc, ENOMEM},
                               {Call::kSocket, EMFILE},
                               {Call::kIoctl, ENODEV},
                               {Call::kBind, ENODEV},
                               {Call::kSendto, ENOBUFS},
                               {Call::kSendto, EAGAIN},
                               {Call::kRecvfrom, ENETDOWN},
                               {Call::kPthreadCreate, EAGAIN},
                               {Call::kFopen, EACCES}});
}

std::vector<Failure> failures_with_files() {
    return with_files(failures_of_the_link());
}

// What a run did, and what it said.
struct Outcome {
    Finished said;
    std::vector<Bytes> sent;
    bool has_firmware; // the card has got all of it

    [[nodiscard]] std::string words() const {
        return std::to_string(said.status) + "\n" + lasting_words(said.out) +
               lasting_words(said.err);
    }
    [[nodiscard]] bool sent_all_of(const Outcome &other) const {
        return std::ranges::all_of(other.sent, [this](const Bytes &frame) {
            return std::ranges::find(sent, frame) != sent.end();
        });
    }
};

bool writea_says_that_it_worked(const Outcome &run) {
    return contains(run.said.out, "write register end") &&
           !contains(run.said.out, "not send again!") && !contains(run.said.out, "fail");
}

bool writeaw_says_that_it_worked(const Outcome &run) {
    return contains(run.said.out, "write register end") &&
           !contains(run.said.out, "write ack wait error");
}

bool update_says_that_it_worked(const Outcome &run) {
    return contains(run.said.out, "100%");
}

// What did not even leave the board is told.
bool write_says_that_it_was_sent(const Outcome &run) {
    return run.said.status == 0 && contains(run.said.out, "write register end") &&
           !contains(run.said.out, "fail");
}

bool says_nothing(const Outcome & /*run*/) {
    return false;
}

struct Command {
    const char *name;
    Words words; // "FILE" and "PICTURE" stand for files
    std::vector<Failure> failures;
    bool (*says_that_it_worked)(const Outcome &run);
};

void PrintTo(const Command &command, std::ostream *to) {
    *to << command.name;
}

const std::string kAddrWord = "12340";

std::vector<Command> commands() {
    const auto register_words = [](const std::string &word, const Words &more) {
        Words words = {"0", word, "102", "3", kAddrWord};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    };
    const std::string len = std::to_string(kReadLen);
    return {
        {"read", register_words("read", {len}), failures_of_the_link(), says_nothing},
        {"readw", register_words("readw", {len}), failures_of_the_link(), says_nothing},
        {"write", register_words("write", {"0x11", "22"}), failures_of_the_link(),
         write_says_that_it_was_sent},
        {"write_file", register_words("write", {"FILE"}), failures_with_files(),
         write_says_that_it_was_sent},
        {"writea", register_words("writea", {"0x11", "22"}), failures_of_the_link(),
         writea_says_that_it_worked},
        {"writea_file", register_words("writea", {"FILE"}), failures_with_files(),
         writea_says_that_it_worked},
        {"writeaw", register_words("writeaw", {"0x11", "22"}), failures_of_the_link(),
         writeaw_says_that_it_worked},
        {"writeaw_file", register_words("writeaw", {"FILE"}), failures_with_files(),
         writeaw_says_that_it_worked},
        {"writea_test1", register_words("writea", {"test1"}), failures_of_the_link(),
         writea_says_that_it_worked},
        {"writeaw_test2", register_words("writeaw", {"1", "2", "3", "4", "5", "test2"}),
         failures_of_the_link(), writeaw_says_that_it_worked},
        {"writepic", register_words("writepic", {"20", "25", "PICTURE"}), failures_with_files(),
         says_nothing},
        {"update",
         {"0", "update", "102", "3", "FIRMWARE"},
         failures_with_files(),
         update_says_that_it_worked},
    };
}

class Tool : public CardAndFiles, public testing::WithParamInterface<Command> {
protected:
    Words words() const {
        Words words = GetParam().words;
        for (std::string &word : words) {
            if (word == "FILE") {
                word = file_;
            } else if (word == "PICTURE") {
                word = picture;
            } else if (word == "FIRMWARE") {
                word = firmware;
            }
        }
        return words;
    }

    // The card numbers the files; the directory is empty before each run.
    Outcome run() {
        std::filesystem::remove_all(saved);
        std::filesystem::create_directories(saved);
        Capture wire;
        const Launch launch = order.with_module({.argv = bed::ruk_command(words())});
        const Finished said = run_to_end(launch);
        return {said, wire.sent(), has_firmware()};
    }

    bool has_firmware() const {
        return std::ranges::any_of(
            std::filesystem::directory_iterator(saved),
            [](const auto &entry) { return bed::content_of(entry.path()) == pattern(kFileSize); });
    }

    void expect_truth(const Outcome &run, const Outcome &good) const {
        SCOPED_TRACE(order.description());
        const std::string said = run.said.out + run.said.err;
        EXPECT_TRUE(run.said.status == 0 || run.said.status == 255) << run.said.status << said;
        expect_no_foreign_data(run.said.out);
        if (GetParam().says_that_it_worked(run)) {
            EXPECT_TRUE(run.sent_all_of(good)) << "sent " << run.sent.size() << " frames\n" << said;
            EXPECT_EQ(run.has_firmware, good.has_firmware) << said;
        }
        if (run.words() == good.words()) {
            EXPECT_EQ(run.sent, good.sent) << "says the same as a good run\n" << said;
        }
    }

    // Every line of a dump is one of the dump of what the card holds.
    static void expect_no_foreign_data(const std::string &out) {
        const std::string right = bed::dump(kAddr, bed::part(pattern(kFileSize), 0, kReadLen));
        static const std::regex line("(^|\n)[0-9a-f]{8}: [^\n]+\n");
        for (std::sregex_iterator found(out.begin(), out.end(), line), end; found != end; ++found) {
            EXPECT_TRUE(contains(right, found->str())) << found->str() << "in\n" << out;
        }
    }

    std::string file_ = directory.file("file", pattern(kFileSize));
};

TEST_P(Tool, EndsAndSaysNothingUntrueWhicheverCallFails) {
    Card card = card_with_data();
    const Outcome good = run();
    ASSERT_EQ(good.said.status, 0) << good.said.out << good.said.err;
    ASSERT_FALSE(good.sent.empty());
    fail_in_turn(GetParam().name, GetParam().failures, order, true,
                 [&] { expect_truth(run(), good); });
    (void)card.stop();
}

INSTANTIATE_TEST_SUITE_P(Commands, Tool, testing::ValuesIn(commands()),
                         [](const auto &test) { return test.param.name; });

} // namespace

} // namespace failing
