// Whose files the service opens, and with what else of root's rights it and its children run.
#include "tests/system/bed/service.h"

#include "tests/board/process.h"

#include <filesystem>
#include <fstream>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace bed {

namespace {

constexpr char kUser[] = "nobody"; // whom the service becomes
constexpr uid_t kAttacker = 1;     // a member of that user's group, and nothing more
constexpr char kImage[] = "/home/updatebin.tmp";

const passwd &user() {
    static const passwd *const found = getpwnam(kUser);
    if (found == nullptr) {
        throw std::runtime_error(std::string("no user ") + kUser);
    }
    return *found;
}

void give(const std::string &path, uid_t owner, gid_t group, mode_t mode) {
    ASSERT_EQ(chown(path.c_str(), owner, group), 0) << path;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

class ServiceRights : public SystemTest {
protected:
    ServiceRights() {
        give(directory.path("."), 0, 0, 0711);
        std::filesystem::create_directory(sockets);
        give(sockets, user().pw_uid, user().pw_gid, 02770);
        give(secret, 0, 0, 0600);
        give(victim, 0, 0, 0600);
        std::ofstream(kImage).close();
        give(kImage, user().pw_uid, user().pw_gid, 0600);
    }
    ~ServiceRights() override {
        std::filesystem::remove(kImage);
    }
    [[nodiscard]] Launch rukd_as_user() const {
        return rukd_command(sockets, {"--user", kUser});
    }

    Directory directory;
    std::string sockets = directory.path("m");
    const Bytes secret_bytes = pattern(300);
    const Bytes victim_bytes = Bytes(50, 'v');
    std::string secret = directory.file("secret.bin", secret_bytes);
    std::string victim = directory.file("victim", victim_bytes);
};

// What some code does as the attacker; false when it could not become that, or says so itself.
bool as_attacker(const std::function<bool()> &code) {
    const gid_t group = user().pw_gid;
    return test::Child([&] {
               if (setgroups(1, &group) != 0 || setgid(kAttacker) != 0 || setuid(kAttacker) != 0) {
                   return 2;
               }
               (void)umask(0007); // as the message library's own sockets
               return code() ? 0 : 1;
           }).wait() == 0;
}

Bytes named(Bytes fields, const std::string &name) {
    fields.insert(fields.end(), name.begin(), name.end());
    return fields;
}

Message file_message(uint8_t code, const Bytes &data) {
    return {.code = code, .slot = 2, .len = static_cast<uint16_t>(data.size()), .data = data};
}

constexpr uint32_t kNoReply = 77;

uint32_t result_of_update(const Client &client, const Bytes &data) {
    if (!client.send(file_message(0xEF, data))) {
        return kNoReply;
    }
    const Bytes reply = client.receive();
    return reply.size() == 44 ? from_bytes(reply).result : kNoReply;
}

// The file thread has carried out all that it has taken.
bool file_thread_is_idle(const Client &client) {
    return result_of_update(client, named({0x20, 0, 0, 0}, "/nowhere")) == 0xFFFFFFFF;
}

bool holds(const std::vector<Bytes> &frames, const Bytes &bytes) {
    return std::any_of(frames.begin(), frames.end(), [&bytes](const Bytes &frame) {
        return std::search(frame.begin(), frame.end(), bytes.begin(), bytes.end()) != frame.end();
    });
}

// One request at a time: the place where they are handed over holds one.
bool ask_for_files(const std::string &sockets, Process &rukd, const std::string &source,
                   const std::string &target) {
    const Client client(sockets, 0x50);
    const Bytes ten_by_ten = {10, 0, 0, 0, 10, 0, 0, 0};
    const Bytes one_by_one = {1, 0, 0, 0, 1, 0, 0, 0};
    return client.send(file_message(0xEE, named(ten_by_ten, source))) &&
           rukd.await_output("found file " + source) && file_thread_is_idle(client) &&
           client.send(file_message(0xDD, named(one_by_one, target))) &&
           rukd.await_output("ddr to filename:" + target) && file_thread_is_idle(client);
}

constexpr uint32_t kFailed = 0xFFFFFFFF;

bool update_ends_with(uint32_t result, const std::string &sockets, const std::string &firmware) {
    const Client client(sockets, 0x50);
    return result_of_update(client, named({0x19, 0, 0, 0}, firmware)) == result;
}

TEST_F(ServiceRights, AreNotRootsForMembersOfTheGroup) {
    Card card;
    Capture capture;
    Process rukd(rukd_as_user());
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    EXPECT_TRUE(as_attacker([&] { return ask_for_files(sockets, rukd, secret, victim); }));
    EXPECT_FALSE(holds(capture.sent(), part(secret_bytes, 0, 30)));
    EXPECT_EQ(count(rukd.out(), "open file " + secret + " failed"), 1);
    EXPECT_TRUE(as_attacker([&] { return update_ends_with(kFailed, sockets, secret); }));
    EXPECT_FALSE(holds(capture.sent(), part(secret_bytes, 0, 30)));
    EXPECT_EQ(content_of(secret), secret_bytes);
    EXPECT_EQ(content_of(victim), victim_bytes);
    EXPECT_FALSE(std::filesystem::exists(victim + ".bmp"));

    // Everything else they get.
    const std::string shared = directory.file("shared.bin", secret_bytes);
    give(shared, 0, 0, 0644);
    EXPECT_TRUE(
        as_attacker([&] { return ask_for_files(sockets, rukd, shared, sockets + "/picture"); }));
    EXPECT_TRUE(holds(capture.sent(), secret_bytes));
    EXPECT_EQ(content_of(sockets + "/picture").size(), 4U);
    EXPECT_EQ(content_of(sockets + "/picture.bmp").size(), 58U);
    EXPECT_TRUE(as_attacker([&] {
        const Client client(sockets, 0x50);
        return result_of_update(client, named({0x19, 0, 0, 0}, shared)) == 0 &&
               client.send({.code = 0x00, .slot = 2, .addr = 0x10, .len = 4}) &&
               from_bytes(client.receive()).result == 0;
    }));
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    (void)card.stop();
}

// What the same requests do to a service that was told not to mind.
TEST_F(ServiceRights, AreRootsWhenThatIsAskedFor) {
    Card card;
    Capture capture;
    give(sockets, 0, user().pw_gid, 02770);
    Process rukd(rukd_command(sockets, {"--as-root"}));
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    EXPECT_TRUE(as_attacker([&] { return ask_for_files(sockets, rukd, secret, victim); }));
    EXPECT_TRUE(holds(capture.sent(), secret_bytes));
    EXPECT_EQ(content_of(victim).size(), 4U);
    EXPECT_TRUE(as_attacker([&] { return update_ends_with(0, sockets, secret); }));
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    (void)card.stop();
}

struct Place {
    uid_t owner;
    gid_t group;
    mode_t mode;
    const char *refusal; // null: root serves here
};

TEST_F(ServiceRights, AreNotGivenToOthersByRoot) {
    const gid_t group = user().pw_gid;
    const Place rows[] = {
        {0, group, 02770, "others may write to it"},
        {0, 0, 0777, "others may write to it"},
        {0, 0, 01777, "others may write to it"},
        {0, 0, 0720, "others may write to it"},
        {user().pw_uid, 0, 0700, "does not belong to root"},
        {0, group, 02750, "its sockets belong to a group"},
        {0, group, 0750, nullptr},
        {0, 0, 0700, nullptr},
        {0, 0, 0755, nullptr},
    };
    for (const Place &row : rows) {
        give(sockets, row.owner, row.group, row.mode);
        Process rukd(rukd_command(sockets));
        if (row.refusal == nullptr) {
            EXPECT_TRUE(rukd.await_output("rukd: ready")) << std::oct << row.mode << rukd.err();
            rukd.send(SIGTERM);
            EXPECT_EQ(rukd.wait(), 0);
            continue;
        }
        ASSERT_EQ(rukd.wait(), 1) << std::oct << row.mode;
        EXPECT_EQ(rukd.err(), "rukd: message directory " + sockets + ": " + sockets + " " +
                                  row.refusal +
                                  "; root's files would be open to whoever sends requests: use "
                                  "--user NAME, or --as-root\n");
        EXPECT_EQ(rukd.out(), "");
    }
}

// Who may rename the directory, or make it first, may put another in its place.
TEST_F(ServiceRights, DependOnTheDirectoriesAroundToo) {
    const std::string around = directory.path("around");
    std::filesystem::create_directory(around);
    const std::string inner = around + "/m";
    const struct {
        mode_t mode;
        bool is_there;
        bool is_served;
    } rows[] = {{0777, true, false},
                {0777, false, false},
                {01777, false, false},
                {01777, true, true},
                {0755, false, true}};
    for (const auto &row : rows) {
        std::filesystem::remove_all(inner);
        give(around, 0, 0, row.mode);
        if (row.is_there) {
            std::filesystem::create_directory(inner);
            give(inner, 0, 0, 0755);
        }
        Process rukd(rukd_command(inner));
        if (row.is_served) {
            EXPECT_TRUE(rukd.await_output("rukd: ready")) << std::oct << row.mode << rukd.err();
            continue;
        }
        ASSERT_EQ(rukd.wait(), 1) << std::oct << row.mode << row.is_there;
        EXPECT_EQ(count(rukd.err(), ": " + around + " others may write to it;"), 1) << rukd.err();
    }
}

TEST_F(ServiceRights, NeedADirectoryWhoseNameHasAnEnd) {
    const std::string missing = directory.path("missing");
    const struct {
        std::string name;
        const char *reason;
    } rows[] = {
        {missing + "/m", "No such file or directory"},
        {missing + "/" + std::string(100, 'x') + "/m", "No such file or directory"},
        {missing + "/" + std::string(5000, 'x') + "/m", "File name too long"},
        {"/" + std::string(5000, 'x'), "File name too long"},
        {missing + std::string(5000, '/') + "m", "File name too long"},
        {victim + "/m", "Not a directory"},
    };
    for (const auto &row : rows) {
        const Finished refused = run(rukd_command(row.name));
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, "rukd: message directory " + row.name + ": " + row.reason + "\n");
    }
    // From where it is started, with an end that says nothing.
    Launch launch = rukd_command("near//");
    launch.in_child = [inner = launch.in_child, root = directory.path(".")] {
        inner();
        (void)!chdir(root.c_str());
    };
    Process rukd(launch);
    EXPECT_TRUE(rukd.await_output("messages in " + directory.path("near") + "\n")) << rukd.err();
}

// The service keeps to the directory that it has looked at.
TEST_F(ServiceRights, AreNotLedElsewhereByALink) {
    give(sockets, 0, 0, 0755);
    const std::string link = directory.path("link");
    std::filesystem::create_directory_symlink(sockets, link);
    Process served(rukd_command(link));
    EXPECT_TRUE(served.await_output("messages in " + sockets + "\n")) << served.err();
    give(sockets, 0, 0, 0777);
    Process refused(rukd_command(link));
    EXPECT_EQ(refused.wait(), 1);
    EXPECT_EQ(count(refused.err(), ": " + sockets + " others may write to it;"), 1);
}

// --- what is left of root's rights
// ----------------------------------------------------------------

constexpr uint64_t kKept = 1ULL << CAP_NET_RAW | 1ULL << CAP_NET_ADMIN | 1ULL << CAP_SYS_NICE;

std::string mask(uint64_t capabilities) {
    char text[20];
    (void)snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(capabilities));
    return text;
}

// The value of a line of /proc/PID/status, its words parted by single blanks.
std::string status_line(const std::string &path, const std::string &name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + ":")) {
            std::istringstream words(line.substr(name.size() + 1));
            std::string value;
            for (std::string word; words >> word;) {
                value += (value.empty() ? "" : " ") + word;
            }
            return value;
        }
    }
    return "(missing)";
}

std::set<gid_t> groups_of_user() {
    gid_t list[64];
    int size = std::size(list);
    EXPECT_GT(getgrouplist(kUser, user().pw_gid, list, &size), 0);
    return {list, list + size};
}

std::string four_times(unsigned id) {
    const std::string text = std::to_string(id);
    return text + " " + text + " " + text + " " + text;
}

TEST_F(ServiceRights, OfAUserAreThreeCapabilitiesInEachThread) {
    Process rukd(rukd_as_user());
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    int threads = 0;
    const std::string tasks = "/proc/" + std::to_string(rukd.pid()) + "/task";
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        const std::string status = task.path() / "status";
        EXPECT_EQ(status_line(status, "Uid"), four_times(user().pw_uid));
        EXPECT_EQ(status_line(status, "Gid"), four_times(user().pw_gid));
        std::istringstream words(status_line(status, "Groups"));
        const std::set<gid_t> groups{std::istream_iterator<gid_t>(words), {}};
        EXPECT_EQ(groups, groups_of_user());
        EXPECT_EQ(status_line(status, "CapPrm"), mask(kKept));
        EXPECT_EQ(status_line(status, "CapEff"), mask(kKept));
        EXPECT_EQ(status_line(status, "CapBnd"), mask(kKept));
        EXPECT_EQ(status_line(status, "CapInh"), mask(0));
        EXPECT_EQ(status_line(status, "CapAmb"), mask(0));
        EXPECT_EQ(status_line(status, "NoNewPrivs"), "1");
        threads += 1;
    }
    EXPECT_GE(threads, 5);
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
}

// The commands that requests make the service run: "sync" of a picture stands for all of them.
TEST_F(ServiceRights, OfAUserDoNotGoToShellCommands) {
    const std::string commands = directory.path("bin");
    std::filesystem::create_directory(commands);
    give(commands, 0, 0, 0755);
    std::filesystem::copy_file("/usr/bin/id", commands + "/id-of-owner");
    give(commands + "/id-of-owner", 0, 0, 04755);
    const std::string report = sockets + "/report";
    std::ofstream(commands + "/sync") << "#!/bin/sh\ncat /proc/self/status >" << report << "\n"
                                      << commands << "/id-of-owner -u >>" << report << "\n";
    give(commands + "/sync", 0, 0, 0755);
    Launch launch = rukd_as_user();
    launch.in_child = [inner = launch.in_child, commands] {
        inner();
        (void)setenv("PATH", (commands + ":/usr/bin:/bin").c_str(), 1);
    };
    Card card;
    Process rukd(launch);
    ASSERT_TRUE(rukd.await_output("rukd: ready")) << rukd.err();
    ASSERT_TRUE(
        as_attacker([&] { return ask_for_files(sockets, rukd, secret, sockets + "/picture"); }));
    EXPECT_EQ(status_line(report, "Uid"), four_times(user().pw_uid));
    for (const char *set : {"CapPrm", "CapEff", "CapInh", "CapAmb"}) {
        EXPECT_EQ(status_line(report, set), mask(0)) << set;
    }
    EXPECT_EQ(status_line(report, "CapBnd"), mask(kKept));
    const Bytes bytes = content_of(report);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_TRUE(text.ends_with("\n" + std::to_string(user().pw_uid) + "\n")) << text;
    rukd.send(SIGTERM);
    EXPECT_EQ(rukd.wait(), 0) << rukd.err();
    (void)card.stop();
}

TEST_F(ServiceRights, OfAUserNeedOneThatRootMayBecome) {
    const struct {
        Words arguments;
        int status;
        const char *complaint;
    } rows[] = {
        {{"--user", "no-such-user"}, 1, "rukd: user 'no-such-user': no such user\n"},
        {{"--user", "root"}, 1, "rukd: user 'root': has all of root's files\n"},
        {{"--user"}, 2, "rukd: argument '--user': one user's name must follow (see rukd --help)\n"},
        {{"--user", kUser, "--user", kUser},
         2,
         "rukd: argument '--user': one user's name must follow (see rukd --help)\n"},
        {{"--user", kUser, "--as-root"},
         2,
         "rukd: argument '--as-root': not together with --user (see rukd --help)\n"},
    };
    for (const auto &row : rows) {
        const Finished refused = run(rukd_command(sockets, row.arguments));
        EXPECT_EQ(refused.status, row.status);
        EXPECT_EQ(refused.err, row.complaint);
    }
    Launch launch = rukd_as_user();
    launch.in_child = [inner = launch.in_child] {
        inner();
        if (setgid(kAttacker) != 0 || setuid(kAttacker) != 0) {
            _exit(99);
        }
    };
    const Finished not_root = run(launch);
    EXPECT_EQ(not_root.status, 1);
    EXPECT_EQ(not_root.err, std::string("rukd: user '") + kUser +
                                "': give up root's capabilities: Operation not permitted\n");
}

} // namespace

} // namespace bed
