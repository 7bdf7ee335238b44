#include "support/device_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "host/environment.h"

namespace vistrel_test {

const std::string& Event::at(size_t i) const {
  static const std::string kEmpty;
  return i < fields.size() ? fields[i] : kEmpty;
}

void DeviceTest::SetUp() {
  work_dir_ = ::testing::TempDir() + "vistrel_test_XXXXXX";
  ASSERT_NE(mkdtemp(work_dir_.data()), nullptr);
  device_root_ = work_dir_ + "/device";
  log_file_ = work_dir_ + "/events.log";
  setenv("VISTREL_DEVICE_ROOT", device_root_.c_str(), 1);
  setenv("VISTREL_LOG_FILE", log_file_.c_str(), 1);
  unsetenv("VISTREL_SERIAL_NUMBER");
  unsetenv("VISTREL_SWITCHBOARD_URL");
  ASSERT_TRUE(vistrel_host::PrepareDeviceRoot());
}

void DeviceTest::TearDown() {
  std::error_code ignored;
  std::filesystem::remove_all(work_dir_, ignored);
}

std::string DeviceTest::HostPath(const std::string& device_path) const {
  return device_root_ + device_path;
}

void DeviceTest::WriteDeviceFile(const std::string& device_path, const std::string& content) const {
  std::filesystem::create_directories(std::filesystem::path(HostPath(device_path)).parent_path());
  std::ofstream out(HostPath(device_path), std::ios::binary | std::ios::trunc);
  out << content;
}

std::string DeviceTest::ReadDeviceFile(const std::string& device_path) const {
  std::ifstream in(HostPath(device_path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool DeviceTest::DeviceFileExists(const std::string& device_path) const {
  return std::filesystem::exists(HostPath(device_path));
}

size_t DeviceTest::DeviceFolderEntries(const std::string& device_folder) const {
  std::error_code error;
  return std::distance(std::filesystem::directory_iterator(HostPath(device_folder), error), {});
}

std::vector<std::string> DeviceTest::KeptAside(const std::string& device_path,
                                               const std::string& label) const {
  const std::filesystem::path path(HostPath(device_path));
  const std::string prefix = path.filename().string() + "." + label + "-";
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path(), error)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  std::vector<std::string> contents;
  for (const std::string& name : names) {
    contents.push_back(
        ReadDeviceFile(std::filesystem::path(device_path).parent_path().string() + "/" + name));
  }
  return contents;
}

std::vector<Event> DeviceTest::Events() const {
  std::vector<Event> events;
  std::ifstream in(log_file_);
  for (std::string line; std::getline(in, line);) {
    std::stringstream fields(line);
    events.emplace_back();
    for (std::string field; std::getline(fields, field, '\t');)
      events.back().fields.push_back(field);
  }
  return events;
}

std::vector<std::string> DeviceTest::LogLines() const {
  std::vector<std::string> lines;
  for (const Event& event : Events()) {
    const std::string& kind = event.at(0);
    if (kind.empty() || kind.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string line;
    for (size_t i = 0; i < event.fields.size(); ++i) line += (i ? "\t" : "") + event.fields[i];
    lines.push_back(line);
  }
  return lines;
}

std::vector<Event> DeviceTest::EventsOfKind(const std::string& kind) const {
  std::vector<Event> matching;
  for (const Event& event : Events())
    if (event.at(0) == kind) matching.push_back(event);
  return matching;
}

}  // namespace vistrel_test
