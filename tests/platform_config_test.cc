// The host configuration files: values survive a reopen, secrets stay obfuscated, and a save
// killed at any moment leaves a whole file.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

const char kPath[] = "/mnt/ext1/system/config/test.cfg";

using ConfigTest = vistrel_test::DeviceTest;

TEST_F(ConfigTest, ValuesSurviveAReopenAndSecretsStayHidden) {
  iconfig* config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  WriteString(config, "tricky", "a=b\nc\\n\\d\r=");
  WriteSecret(config, "password", "p@ss=word\n\\secret");
  CloseConfig(config);
  EXPECT_EQ(ReadDeviceFile(kPath).find("p@ss"), std::string::npos) << ReadDeviceFile(kPath);

  config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  EXPECT_STREQ(ReadString(config, "tricky", ""), "a=b\nc\\n\\d\r=");
  EXPECT_STREQ(ReadSecret(config, "password", ""), "p@ss=word\n\\secret");
  CloseConfigNoSave(config);
}

// A save's whole value: its number, then enough text that saving takes a while.
std::string Content(int generation) {
  return std::to_string(generation) + ":" + std::string(800000, 'a' + generation % 26);
}

// The generation of a whole file; -1 when the file is torn.
int CheckedGeneration() {
  iconfig* config = OpenConfig(kPath, nullptr);
  const std::string value = config ? ReadString(config, "value", "") : "";
  if (config) CloseConfigNoSave(config);
  const int generation = std::atoi(value.c_str());
  return value == Content(generation) ? generation : -1;
}

TEST_F(ConfigTest, SaveKilledAtAnyMomentLeavesOldOrNewFile) {
  std::mt19937 random(std::random_device{}());
  int last = 0;
  for (int round = 0; round < 20; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // One handle for the whole loop, so that the child spends its time saving.
      iconfig* mine = OpenConfig(kPath, nullptr);
      for (int generation = last + 1; mine; ++generation) {
        WriteString(mine, "value", Content(generation).c_str());
        if (SaveConfig(mine) != 1) break;
        if (generation == last + 1 && write(ready[1], "x", 1) != 1) break;
      }
      _exit(1);
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);  // the child has saved once and goes on saving
    close(ready[0]);
    usleep(std::uniform_int_distribution<useconds_t>(0, 30000)(random));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the saving child stopped on its own";
    const int generation = CheckedGeneration();
    EXPECT_GE(generation, last + 1) << "round " << round;
    last = generation < 0 ? last + 1 : generation;
  }
}

}  // namespace
