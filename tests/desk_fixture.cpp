#include "tests/desk_fixture.h"

#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>

namespace desk {
namespace fs = std::filesystem;

const Module& TheModule() {
  static const Module module(MODULE_FILE);
  return module;
}

std::string FullName(const std::string& method) {
  return std::string("VEXA.Core.TunnelBridge") + (std::isdigit(method[0]) != 0 ? '/' : '.') + method;
}

APIHandler FindHandler(const std::string& method) { return TheModule().Find(FullName(method)); }

Names Split(const std::string& text, const std::string& separator) {
  Names parts;
  size_t start = 0;
  for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + separator.size()) {
    parts.push_back(text.substr(start, end - start));
  }
  parts.push_back(text.substr(start));
  return parts;
}

std::vector<Row> ReadTable(const std::string& name) {
  std::vector<Row> rows;
  std::ifstream file(std::string(DATA_FOLDER "/") + name);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    Names cells = Split(line, " | ");
    cells.resize(rows.emplace_back().size(), "-");
    std::move(cells.begin(), cells.end(), rows.back().begin());
  }
  EXPECT_FALSE(rows.empty()) << name;
  return rows;
}

std::string NameOfRow(const testing::TestParamInfo<Row>& row) {
  std::string name = row.param[0];
  for (char& letter : name) letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
  return name;
}

std::string MethodOf(const Row& row) { return row[0].substr(0, row[0].find(' ')); }

Names Parts(const std::string& cell) { return cell == "-" ? Names() : Split(cell, " ; "); }

std::string Params(const std::string& cell) {
  const std::map<std::string, std::string> names = {
      {"on", R"({"enabled": true})"},
      {"off", R"({"enabled": false})"},
      {"alias", kAliasV1},
      {"long", R"({"services": [{"enabled": true, "id": ")" + std::string(9000, 'a') + "\"}]}"}};
  return names.count(cell) == 0 ? cell : names.at(cell);
}

void DeskTest::Arrange(const std::string& given) {
  const std::map<std::string, std::string> files = {{"conf", kConf},
                                                    {"account", kAccount},
                                                    {"upnp", kUpnp},
                                                    {"services", kServices},
                                                    {"auth", kAuth},
                                                    {"aliases", kAliasStatus},
                                                    {"settings", kSettings},
                                                    {"states", "desk/services.json"},
                                                    {"server", "desk/control-server/state.json"},
                                                    {"script", "desk/control-server/script.json"}};
  for (const std::string& part : Parts(given)) {
    const size_t equals = part.find('=');
    const auto file = files.find(part.substr(0, equals));
    if (part == "no server") {
      device->control_port = 0;
    } else if (file == files.end()) {
      device->faults.Add(part);
    } else {
      Write(file->second, part.substr(equals + 1));
    }
  }
}

std::string Told(const Outcome& outcome) {
  if (outcome.thrown && outcome.answers.empty()) return "throws";
  if (!outcome.Problem().empty()) return outcome.Problem();
  const Answer& answer = outcome.answers.front();
  if (answer.success) return ToLine(answer.data);
  return std::to_string(answer.code) + (answer.data.isNull() ? "" : " with data");
}

Finished RunHost(const std::string& words) {
  FILE* pipe = popen(("'" HOST_PROGRAM "' " + words).c_str(), "r");
  Finished finished{-1, ""};
  std::array<char, 4096> part;
  while (const size_t size = fread(part.data(), 1, part.size(), pipe)) finished.out.append(part.data(), size);
  finished.code = WEXITSTATUS(pclose(pipe));
  return finished;
}

DeskTest::DeskTest() {
  std::string pattern = (fs::temp_directory_path() / "desk-XXXXXX").string();
  root_ = mkdtemp(pattern.data());
  device = std::make_unique<Device>(root_, Device::Clock::kCounted);
}

DeskTest::~DeskTest() {
  control_server.reset();
  device.reset();
  std::error_code gone;
  fs::remove_all(root_, gone);
}

Outcome DeskTest::TryMethod(const std::string& method, const Json::Value& params, bool admin) {
  device->trace.Clear();
  const Outcome outcome = Call(FindHandler(method), params, admin);
  CheckCall(FullName(method), outcome, device->trace.Lines());
  return outcome;
}

Answer DeskTest::CallMethod(const std::string& method, const std::string& params, bool admin) {
  const Outcome outcome = TryMethod(method, ParseJson(params), admin);
  EXPECT_EQ(outcome.Problem(), "") << method;
  return outcome.answers.empty() ? Answer{false, -1, Json::Value()} : outcome.answers.front();
}

Names DeskTest::Logs() const {
  constexpr int kDebug = 7;
  Names logs;
  for (const Json::Value& line : device->trace.Lines()) {
    const std::string priority = line["args"][0] == kDebug ? "debug " : "";
    if (line["op"] == "syslog") logs.push_back(priority + line["args"][1].asString());
  }
  return logs;
}

unsigned DeskTest::Count(const std::string& operation) const {
  unsigned count = 0;
  for (const Json::Value& line : device->trace.Lines()) count += line["op"] == operation ? 1 : 0;
  return count;
}

void DeskTest::StartControlServer() {
  control_server = std::make_unique<ControlServer>(Path("desk/control-server"));
  device->control_port = control_server->Start();
}

void DeskTest::Write(const std::string& file, const std::string& text) const { std::ofstream(Path(file)) << text; }

std::map<std::string, std::string> DeskTest::Snapshot() const {
  std::map<std::string, std::string> files;
  for (const char* folder : {"usr", "etc"}) {
    for (const auto& entry : fs::recursive_directory_iterator(Path(folder))) {
      const std::string name = fs::relative(entry.path(), device->Root()).string();
      if (entry.is_regular_file()) files[name] = Read(name);
    }
  }
  return files;
}

}  // namespace desk
