// The host configuration files: values survive a reopen, secrets stay obfuscated, and a save
// interrupted at any moment leaves a whole file.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

const char kPath[] = "/mnt/ext1/system/config/test.cfg";

class ConfigTest : public vistrel_test::DeviceTest {};

TEST_F(ConfigTest, ValuesSurviveCloseAndReopen) {
  ASSERT_FALSE(DeviceFileExists(kPath));
  iconfig* config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  EXPECT_TRUE(DeviceFileExists(kPath));  // a fresh device gets an empty file

  const std::string tricky = "a=b\nc\\n\\d\r=";
  WriteString(config, "session_id", "abc123");
  WriteString(config, "tricky", tricky.c_str());
  WriteString(config, "empty", "");
  WriteInt(config, "switchboard_update_time", 1700000000);
  WriteInt(config, "negative", -42);
  WriteInt(config, "max", INT_MAX);
  WriteSecret(config, "password", "p@ss=word\n\\secret");
  EXPECT_STREQ(ReadString(config, "session_id", ""), "abc123");
  CloseConfig(config);

  struct stat st;
  ASSERT_EQ(stat(HostPath(kPath).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  std::string file = ReadDeviceFile(kPath);
  EXPECT_EQ(file.find("p@ss"), std::string::npos) << file;
  EXPECT_EQ(file.find("secret\n"), std::string::npos) << file;
  EXPECT_NE(file.find("password=$secret$"), std::string::npos) << file;

  config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  EXPECT_STREQ(ReadString(config, "session_id", ""), "abc123");
  EXPECT_EQ(ReadString(config, "tricky", ""), tricky);
  EXPECT_STREQ(ReadString(config, "empty", "default"), "");
  EXPECT_EQ(ReadInt(config, "switchboard_update_time", 0), 1700000000);
  EXPECT_EQ(ReadInt(config, "negative", 0), -42);
  EXPECT_EQ(ReadInt(config, "max", 0), INT_MAX);
  EXPECT_STREQ(ReadSecret(config, "password", ""), "p@ss=word\n\\secret");
  const char* deflt = "fallback";
  EXPECT_EQ(ReadString(config, "absent", deflt), deflt);
  EXPECT_EQ(ReadSecret(config, "absent", deflt), deflt);
  EXPECT_EQ(ReadString(config, "absent", nullptr), nullptr);
  EXPECT_EQ(ReadInt(config, "absent", 7), 7);
  EXPECT_EQ(ReadInt(config, "session_id", 7), 7);  // not a number
  WriteString(config, "prefixed", "12abc");
  EXPECT_EQ(ReadInt(config, "prefixed", 7), 12);  // strtol reads the leading digits
  WriteString(config, "huge", "99999999999999999999");
  EXPECT_EQ(ReadInt(config, "huge", 7), INT_MAX);
  // A value that was written as plain text is read back as it is.
  WriteString(config, "plain_secret", "visible");
  EXPECT_STREQ(ReadSecret(config, "plain_secret", ""), "visible");
  // Rewriting a secret gives the new value, not a stale cached one.
  WriteSecret(config, "password", "second");
  EXPECT_STREQ(ReadSecret(config, "password", ""), "second");
  CloseConfigNoSave(config);
}

TEST_F(ConfigTest, NoSaveDiscardsAndSaveKeepsWhatWasSaved) {
  iconfig* config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  WriteString(config, "kept", "1");
  EXPECT_EQ(SaveConfig(config), 1);
  WriteString(config, "dropped", "2");
  CloseConfigNoSave(config);

  config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  EXPECT_STREQ(ReadString(config, "kept", ""), "1");
  EXPECT_EQ(ReadString(config, "dropped", nullptr), nullptr);
  CloseConfigNoSave(config);

  // Hand-written files: comments, blank lines and CRLF endings are tolerated.
  WriteDeviceFile(kPath, "# comment\n\nuser_name=me@example.com\r\nbroken line\nint=5\n");
  config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  EXPECT_STREQ(ReadString(config, "user_name", ""), "me@example.com");
  EXPECT_EQ(ReadInt(config, "int", 0), 5);
  CloseConfig(config);  // nothing changed: the file stays as written
  EXPECT_EQ(ReadDeviceFile(kPath), "# comment\n\nuser_name=me@example.com\r\nbroken line\nint=5\n");
}

TEST_F(ConfigTest, UnopenablePathsGiveNull) {
  EXPECT_EQ(OpenConfig("/mnt/ext1/no/such/folder/x.cfg", nullptr), nullptr);
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/no/such/folder/x.cfg"));
  EXPECT_EQ(OpenConfig("/mnt/ext1/system/config", nullptr), nullptr);  // a folder
  EXPECT_EQ(OpenConfig(nullptr, nullptr), nullptr);
  EXPECT_EQ(OpenConfig("", nullptr), nullptr);
}

std::string GenerationValue(int generation) {
  return std::string(4000, static_cast<char>('a' + generation % 26)) + "\n=\\" +
         std::to_string(generation);
}

// Every key of the file carries the save's number, so a file mixing two saves shows.
bool SaveGeneration(iconfig* config, int generation) {
  WriteInt(config, "generation", generation);
  std::string value = GenerationValue(generation);
  for (int i = 0; i < 200; ++i) {
    WriteString(config, ("key" + std::to_string(i)).c_str(), value.c_str());
  }
  return SaveConfig(config) == 1;
}

// The generation of a whole file; -1 when the file is torn or mixed.
int CheckedGeneration() {
  iconfig* config = OpenConfig(kPath, nullptr);
  if (!config) return -1;
  int generation = ReadInt(config, "generation", -1);
  std::string value = GenerationValue(generation);
  for (int i = 0; i < 200 && generation >= 0; ++i) {
    if (ReadString(config, ("key" + std::to_string(i)).c_str(), "") != value) generation = -1;
  }
  CloseConfigNoSave(config);
  return generation;
}

TEST_F(ConfigTest, SaveKilledAtAnyMomentLeavesOldOrNewFile) {
  iconfig* config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  ASSERT_TRUE(SaveGeneration(config, 0));
  CloseConfigNoSave(config);
  std::mt19937 random(std::random_device{}());
  int last = 0;
  for (int round = 0; round < 20; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(ready[0]);
      // One handle for the whole loop, so that the child spends its time saving.
      iconfig* mine = OpenConfig(kPath, nullptr);
      if (!mine) _exit(3);
      for (int generation = last + 1;; ++generation) {
        if (!SaveGeneration(mine, generation)) _exit(4);
        if (generation == last + 1 && write(ready[1], "x", 1) != 1) _exit(5);
      }
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);  // the child has saved once and goes on saving
    close(ready[0]);
    usleep(std::uniform_int_distribution<useconds_t>(0, 30000)(random));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the saving child failed with " << WEXITSTATUS(status);

    int generation = CheckedGeneration();
    EXPECT_GE(generation, last + 1) << "round " << round;
    last = generation < 0 ? last + 1 : generation;
  }
}

}  // namespace
