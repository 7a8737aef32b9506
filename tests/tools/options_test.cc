// dravikctl's command line: what each command takes, the defaults that
// depend on the command, and the one-line reason for every refusal.
#include "tools/dravikctl/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using dravikctl::Options;

namespace {

class OptionsTest : public ::testing::Test {
 protected:
  bool parse(std::vector<std::string> words) {
    words.insert(words.begin(), "dravikctl");
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    error_.clear();
    return dravikctl::parseCommandLine(static_cast<int>(words.size()), argv.data(), &options_, &error_);
  }
  std::string refusal(const std::vector<std::string>& words) {
    EXPECT_FALSE(parse(words));
    return error_;
  }

  Options options_;
  std::string error_;
};

}  // namespace

TEST_F(OptionsTest, DefaultsAreTheServicePipesAndTheToolsOwnEndpoint) {
  ASSERT_TRUE(parse({"reset-all"}));
  EXPECT_EQ(options_.command, "reset-all");
  EXPECT_EQ(options_.mailbox, "/tmp/dravik.mailbox");
  EXPECT_EQ(options_.notifications, "/tmp/comm.mailbox");
  EXPECT_EQ(options_.sender, 100);
  EXPECT_EQ(options_.responseSelector, 0);
  EXPECT_EQ(options_.timeout, 5);
}

TEST_F(OptionsTest, SenderDefaultsToTheEndpointThatSendsSuchAMessage) {
  ASSERT_TRUE(parse({"calibration-response", "41", "block.bin"}));
  EXPECT_EQ(options_.sender, 11);
  EXPECT_EQ(options_.requestId, 41);
  EXPECT_EQ(options_.file, "block.bin");
  ASSERT_TRUE(parse({"save-filter", "1", "0"}));
  EXPECT_EQ(options_.sender, 2);
  ASSERT_TRUE(parse({"save-filter", "1", "0", "--sender", "7"}));
  EXPECT_EQ(options_.sender, 7);
}

TEST_F(OptionsTest, GetFilterAsksForTheUsualResponseSelectorUnlessTold) {
  ASSERT_TRUE(parse({"get-filter", "3"}));
  EXPECT_EQ(options_.channel, 3);
  EXPECT_EQ(options_.responseSelector, 13003);
  ASSERT_TRUE(parse({"--response-selector=0", "get-filter", "3"}));
  EXPECT_EQ(options_.responseSelector, 0);
}

TEST_F(OptionsTest, OptionsStandAnywhereInEitherForm) {
  ASSERT_TRUE(parse({"--mailbox", "/a", "set-filter", "--notifications=/b", "2", "f.xml", "--timeout", "0.5"}));
  EXPECT_EQ(options_.mailbox, "/a");
  EXPECT_EQ(options_.notifications, "/b");
  EXPECT_EQ(options_.channel, 2);
  EXPECT_EQ(options_.file, "f.xml");
  EXPECT_EQ(options_.timeout, 0.5);
}

TEST_F(OptionsTest, NegativeNumbersAreArguments) {
  ASSERT_TRUE(parse({"save-filter", "-1", "-5"}));
  EXPECT_EQ(options_.channel, -1);
  EXPECT_EQ(options_.status, -5);
}

TEST_F(OptionsTest, DoubleDashEndsTheOptions) {
  ASSERT_TRUE(parse({"set-filter", "1", "--", "--odd-name.xml"}));
  EXPECT_EQ(options_.file, "--odd-name.xml");
}

TEST_F(OptionsTest, SimulateAndMonitorOptions) {
  ASSERT_TRUE(parse({"simulate", "--filter-status", "3", "--block-size", "0", "--count", "2", "--duration", "1.5",
                     "--json", "--hex"}));
  EXPECT_EQ(options_.filterStatus, 3);
  EXPECT_EQ(options_.blockSize, 0u);
  EXPECT_EQ(options_.count, 2);
  EXPECT_EQ(options_.duration, 1.5);
  EXPECT_TRUE(options_.json);
  EXPECT_TRUE(options_.hex);
  EXPECT_EQ(refusal({"monitor", "--block-size=65488"}), "option '--block-size' applies to simulate only");
}

TEST_F(OptionsTest, HelpAndVersionWinOverAnythingElse) {
  ASSERT_TRUE(parse({"bogus", "--help", "--nonsense"}));
  EXPECT_TRUE(options_.help);
  ASSERT_TRUE(parse({"-V"}));
  EXPECT_TRUE(options_.version);
}

TEST_F(OptionsTest, EveryRefusalSaysWhatIsWrong) {
  EXPECT_EQ(refusal({}), "no command given");
  EXPECT_EQ(refusal({"reset"}), "unknown command 'reset'");
  EXPECT_EQ(refusal({"reset-all", "1"}), "reset-all takes no arguments");
  EXPECT_EQ(refusal({"reset-channel"}), "reset-channel takes N, got 0 arguments");
  EXPECT_EQ(refusal({"set-filter", "1"}), "set-filter takes N FILE, got 1 argument");
  EXPECT_EQ(refusal({"reset-channel", "two"}), "invalid channel 'two' (a number such as 0 to 3)");
  EXPECT_EQ(refusal({"reset-channel", "4294967296"}), "invalid channel '4294967296' (a number such as 0 to 3)");
  EXPECT_EQ(refusal({"reset-channel", " 1"}), "invalid channel ' 1' (a number such as 0 to 3)");
  EXPECT_EQ(refusal({"save-filter", "1", "ok"}), "invalid status 'ok' (a 32-bit number; 0 is success)");
  EXPECT_EQ(refusal({"calibration-response", "x", "f"}), "invalid request id 'x' (a 32-bit number)");
  EXPECT_EQ(refusal({"reset-all", "--verbose"}), "unknown option '--verbose'");
  EXPECT_EQ(refusal({"reset-all", "-v"}), "unknown option '-v'");
  EXPECT_EQ(refusal({"reset-all", "--timeout"}), "option '--timeout' needs a value");
  EXPECT_EQ(refusal({"reset-all", "--timeout", "0"}), "invalid --timeout value '0' (seconds, more than 0)");
  EXPECT_EQ(refusal({"reset-all", "--timeout=soon"}), "invalid --timeout value 'soon' (seconds, more than 0)");
  EXPECT_EQ(refusal({"monitor", "--hex=yes"}), "option '--hex' takes no value");
  EXPECT_EQ(refusal({"reset-all", "--json"}), "option '--json' applies to monitor and simulate only");
  EXPECT_EQ(refusal({"monitor", "--sender", "5"}), "option '--sender' applies to commands that send a message only");
  EXPECT_EQ(refusal({"monitor", "--filter-status", "3"}), "option '--filter-status' applies to simulate only");
  EXPECT_EQ(refusal({"simulate", "--count", "0"}), "invalid --count value '0' (a number of frames, more than 0)");
  EXPECT_EQ(refusal({"simulate", "--block-size", "65489"}), "invalid --block-size value '65489' (0 to 65488 bytes)");
  EXPECT_EQ(refusal({"get-filter", "1", "--mailbox="}), "invalid --mailbox value '' (a path)");
}
