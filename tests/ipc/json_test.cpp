// json_test.cpp - what scripts get.
#include "json.h"

#include "client.h"
#include "json_check.h"
#include "service.h"

namespace {

using test::parse_object;
using test::run_client;
using test::Service;

using Json = test::ClientTest;

TEST(JsonString, EscapesWhatJsonCannotHold) {
    struct Row {
        std::string text;
        std::string literal;
    };
    for (const Row &row : {
             Row{"plain", R"("plain")"},
             Row{"", R"("")"},
             Row{"a\"b\\c/", R"("a\"b\\c/")"},
             Row{std::string("\n\t\0\x7f", 4), R"("\u000a\u0009\u0000\u007f")"},
             Row{"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80",
                 "\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\""},
             Row{"\xff", R"("\ufffd")"},
             Row{"\xc3", R"("\ufffd")"},
             Row{"\xc3x", R"("\ufffdx")"},
             Row{"\xc0\xaf", R"("\ufffd\ufffd")"},
             Row{"\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},
             Row{"\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},
         }) {
        EXPECT_EQ(ipc::json_string(row.text), row.literal);
    }
    EXPECT_EQ(ipc::json_string(std::string_view("\xc3\xa4").substr(0, 1)), R"("\ufffd")");
}

TEST(JsonCheck, RefusesWhatIsNoObject) {
    EXPECT_TRUE(parse_object("{\"a\":1,\"b\":[\"x\",{\"c\":true}]}\n"));
    for (const char *text :
         {"", "{}\n", "{\"a\":1}", "{\"a\":1}\n\n", "{\"a\":01}\n", "{\"a\":1,}\n", "{\"a\"}\n",
          "{\"a\":1,\"a\":2}\n", "{\"a\":\"\x01\"}\n", "{\"a\":\"\\x\"}\n", "{\"a\":[1,]}\n"}) {
        EXPECT_FALSE(parse_object(text)) << text;
    }
}

TEST_F(Json, TellsOfARead) {
    const Service service(test::answer_well);
    const auto run = run_client({"--json", "--slot", "2", "read", "1000", "4"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    const auto object = parse_object(run.out);
    ASSERT_TRUE(object) << run.out;
    EXPECT_EQ(object->at("command"), "\"read\"");
    EXPECT_EQ(object->at("status"), "\"ok\"");
    EXPECT_EQ(object->at("service"), std::to_string(test::kServiceAddress));
    EXPECT_EQ(object->at("slot"), "2");
    EXPECT_EQ(object->at("model"), "0");
    EXPECT_EQ(object->at("address"), "4096");
    EXPECT_EQ(object->at("length"), "4");
    EXPECT_EQ(object->at("done"), "4");
    EXPECT_EQ(object->at("result"), "0");
    EXPECT_EQ(object->at("requests"), "1");
    EXPECT_EQ(object->at("seq"), std::to_string(test::number_at(service.received(1).at(0), 30, 2)));
    EXPECT_EQ(object->at("data"), "\"70717273\"");
    EXPECT_FALSE(object->contains("message"));
}

TEST_F(Json, TellsOfEverythingElseThatWentWell) {
    const Service service(test::answer_well);
    test::make_file(path("p.txt"), std::string(18, 0));
    struct Row {
        test::Words words;
        std::string status;
        const char *member;
        std::string value;
    };
    const std::string picture = path("p.txt");
    for (const Row &row :
         {Row{{"--slot", "2", "read", "0", "1401"}, "\"ok\"", "requests", "2"},
          Row{{"write", "0", "1", "2"}, "\"handed-over\"", "done", "2"},
          Row{{"--slot", "2", "write-ack", "0", "1", "2"}, "\"answered\"", "done", "2"},
          Row{{"write-ack", "0", "1"}, "\"handed-over\"", "done", "1"},
          Row{{"put-picture", "0", "3", "2", picture},
              "\"handed-over\"",
              "file",
              '"' + picture + '"'},
          Row{{"get-picture", "0", "3", "2", "/x"}, "\"handed-over\"", "width", "3"},
          Row{{"get-picture", "0", "3", "2", "/x"}, "\"handed-over\"", "height", "2"},
          Row{{"update", "19", "/f.bin"}, "\"ok\"", "kind", "25"},
          Row{{"hello"}, "\"ok\"", "text", "\"Hello, I am ruk module!\""}}) {
        test::Words words = {"--json"};
        words.insert(words.end(), row.words.begin(), row.words.end());
        const auto run = run_client(words);
        EXPECT_EQ(run.status, 0) << run.out;
        const auto object = parse_object(run.out);
        ASSERT_TRUE(object) << run.out;
        EXPECT_EQ(object->at("status"), row.status);
        EXPECT_EQ(object->at(row.member), row.value);
    }
}

TEST_F(Json, TellsOfARefusal) {
    const Service service(test::refuse);
    const auto run = run_client({"--json", "read", "1000", "4"});
    EXPECT_EQ(run.status, 1);
    const auto object = parse_object(run.out);
    ASSERT_TRUE(object) << run.out;
    EXPECT_EQ(object->at("status"), "\"refused\"");
    EXPECT_EQ(object->at("result"), "-1");
    EXPECT_EQ(object->at("done"), "0");
    EXPECT_FALSE(object->contains("data"));
    const std::string message = object->at("message");
    EXPECT_EQ(run.err, "ruk-ipc: " + message.substr(1, message.size() - 2) + "\n");
}

TEST_F(Json, TellsOfSilenceAndOfNobody) {
    auto run = run_client({"--json", "hello"});
    EXPECT_EQ(run.status, 3);
    auto object = parse_object(run.out);
    ASSERT_TRUE(object) << run.out;
    EXPECT_EQ(object->at("status"), "\"no-answer\"");

    const Service service(test::do_nothing);
    run = run_client({"--json", "--timeout", "50", "read", "0", "1"});
    EXPECT_EQ(run.status, 3);
    object = parse_object(run.out);
    ASSERT_TRUE(object) << run.out;
    EXPECT_EQ(object->at("status"), "\"no-answer\"");
    EXPECT_TRUE(test::contains(object->at("message"), "within 50 ms")) << run.out;
}

TEST_F(Json, TellsOfAWrongCommandLine) {
    test::make_file(path("i"), "123");
    for (const test::Words &words :
         {test::Words{"--json", "read", "x", "1"}, test::Words{"--json"},
          test::Words{"read", "--json", "--bad"}, test::Words{"--bad", "--json"},
          test::Words{"nothing", "--json"},
          test::Words{"--json", "write", "fffffffe", "--input", path("i")}}) {
        const auto run = run_client(words);
        EXPECT_EQ(run.status, 2);
        const auto object = parse_object(run.out);
        ASSERT_TRUE(object) << run.out;
        EXPECT_EQ(object->at("status"), "\"usage\"");
        EXPECT_TRUE(object->contains("message"));
        EXPECT_FALSE(object->contains("service")) << "nothing was asked";
    }
}

TEST_F(Json, ShowsADryRun) {
    const auto run =
        run_client({"--json", "--dry-run", "--module", "c1", "--slot", "2", "read", "0", "1401"});
    EXPECT_EQ(run.status, 0) << run.err;
    const auto object = parse_object(run.out);
    ASSERT_TRUE(object) << run.out;
    EXPECT_EQ(object->at("status"), "\"dry-run\"");
    const std::string messages = object->at("messages");
    EXPECT_TRUE(test::contains(messages, "\"addr\":0,\"len\":1400,")) << messages;
    EXPECT_TRUE(test::contains(messages, "\"addr\":1400,\"len\":1,")) << messages;
    EXPECT_TRUE(test::contains(messages, "\"length\":40,\"reply\":true,")) << messages;
    EXPECT_TRUE(test::contains(messages, "\"bytes\":\"00c10a030000")) << messages;
}

} // namespace
