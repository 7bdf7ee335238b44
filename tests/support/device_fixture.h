// A test's own emulated device: a fresh device root and event log in a temporary folder,
// and the host variables pointed at them.
#ifndef TESTS_SUPPORT_DEVICE_FIXTURE_H_
#define TESTS_SUPPORT_DEVICE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace vistrel_test {

// One event of the device's log file, split at its tabs.
struct Event {
  std::vector<std::string> fields;
  const std::string& at(size_t i) const;
};

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The host path of a device path.
  std::string HostPath(const std::string& device_path) const;
  void WriteDeviceFile(const std::string& device_path, const std::string& content) const;
  std::string ReadDeviceFile(const std::string& device_path) const;
  bool DeviceFileExists(const std::string& device_path) const;
  // The number of entries of a device folder; 0 when it does not exist.
  size_t DeviceFolderEntries(const std::string& device_folder) const;
  // The contents of the files that were kept aside in place of `device_path`
  // ("<device_path>.<label>-..."), in the order of their names.
  std::vector<std::string> KeptAside(const std::string& device_path,
                                     const std::string& label = "unreadable") const;

  // Every event logged so far.
  std::vector<Event> Events() const;
  // The log events (first field a level number), as "<level>\t<file>\t<line>\t<function>\t<text>".
  std::vector<std::string> LogLines() const;
  // Events whose first field is `kind` ("message", "request", ...).
  std::vector<Event> EventsOfKind(const std::string& kind) const;

  std::string work_dir_;     // the test's temporary folder
  std::string device_root_;  // work_dir_ + "/device"
  std::string log_file_;     // work_dir_ + "/events.log"
};

}  // namespace vistrel_test

#endif  // TESTS_SUPPORT_DEVICE_FIXTURE_H_
