#include "devkit/device/device.h"

#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "devkit/device/new_device.h"

namespace desk {
namespace fs = std::filesystem;
namespace {

std::atomic<Device*> current{nullptr};

fs::path PrepareRoot(const fs::path& root) {
  std::error_code error;
  fs::create_directories(root, error);
  if (!fs::is_directory(root)) {
    const std::string reason = error ? error.message() : "it is no folder";
    throw std::runtime_error("cannot make the device folder '" + root.string() + "': " + reason);
  }
  fs::path absolute = fs::canonical(root);
  if (absolute == "/") throw std::runtime_error("the machine's own root cannot be a desk device; name another folder");
  if (!fs::is_empty(absolute) && !fs::is_directory(absolute / "desk")) {
    throw std::runtime_error("'" + absolute.string() + "' is no desk device; name an empty or a new folder");
  }
  const FolderLock lock(absolute);
  for (const char* folder : {"desk", "etc", "usr/vexa/etc/vexarelayd", "usr/vexa/etc/kova", "usr/vexa/bin"}) {
    RemoveParts(absolute / folder);
  }
  if (!fs::exists(absolute / "desk/services.json")) FillNewDevice(absolute);
  return absolute;
}

void AddStoredFaults(Faults& faults, const fs::path& file) {
  std::istringstream lines(LoadText(file).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line.front() == '#') continue;
    try {
      faults.Add(line);
    } catch (const std::invalid_argument& problem) {
      throw std::runtime_error(file.string() + ": " + problem.what());
    }
  }
}

}  // namespace

Device::Device(const fs::path& root, Clock clock) : root_(PrepareRoot(root)), clock_(clock) {
  AddStoredFaults(faults, root_ / "desk/faults");
  Device* none = nullptr;
  if (!current.compare_exchange_strong(none, this)) throw std::logic_error("this process already has a desk device");
}

Device::~Device() { current = nullptr; }

Device* Device::Find() { return current; }

Device& Device::Get() {
  Device* device = current;
  if (device == nullptr) throw std::logic_error("this process has no desk device");
  return *device;
}

fs::path Device::Locate(const std::string& device_path) const { return root_ / fs::path(device_path).relative_path(); }

std::int64_t Device::Now() const {
  if (clock_ == Clock::kCounted) return counted_ / 1000;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void Device::Sleep(std::chrono::microseconds pause) {
  if (clock_ == Clock::kCounted) {
    counted_ += pause.count();
  } else {
    std::this_thread::sleep_for(pause);
  }
}

std::optional<Json::Value> Device::Load(const std::string& device_path) {
  auto document = LoadJson(Locate(device_path));
  if (document) trace.Own(device_path, *document);
  return document;
}

}  // namespace desk
