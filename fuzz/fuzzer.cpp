// Fuzzes one part of a scene. The JSON library is not instrumented, so bytes alone would rarely get past its
// parser: scenes are changed as trees, and bytes only within their texts.

#include <cstdint>
#include <random>
#include <vector>

#include "fuzz/stage.h"

extern "C" size_t LLVMFuzzerMutate(std::uint8_t* data, size_t size, size_t max_size);

namespace desk {
namespace {

/// Names of members, and values that mean something to the module or to the stand-in libraries.
const Json::Value words = ParseJson(R"(["enabled", "services", "id", "server_alias", "server_control", "server_kova",
  "server_register", "name", "account", "host", "region", "server_id", "kova_account", "kova_password", "force",
  "status", "detail", "auth_key", "email", "device", "api_key", "lease_seconds", "running", "stop_fails", "serverID",
  "error", "code", "mybox", "a@b.cd", "register.vexa.example", "eu.control.vexa.example", "yes", "123456", "%s%n%m",
  "", "\u0000", "a\u0000", "\n", "{", "ß", null, true, false, 0, 1, -1, 28, 503, 2147483648, 1e300, [], {},
  100, 101, 102, 110, 111, 120, 121, 122, 130, 131, 132])");

std::minstd_rand random_number;

unsigned Below(size_t limit) { return static_cast<unsigned>(random_number() % limit); }

void Replace(Json::Value& node, const Json::Value& value) { node = value; }

void Add(Json::Value& node, const Json::Value& value) {
  const Json::Value& name = words[Below(words.size())];
  if (node.isArray()) {
    node.append(value);
  } else if (name.isString()) {
    if (!node.isObject()) node = Json::Value(Json::objectValue);
    node[name.asString()] = value;
  }
}

void Remove(Json::Value& node, const Json::Value&) {
  const unsigned size = node.size();
  if (size == 0) return;
  const unsigned index = Below(size);
  Json::Value removed;
  if (node.isArray()) node.removeIndex(index, &removed);
  if (node.isObject()) node.removeMember(node.getMemberNames()[index]);
}

void ChangeBytes(Json::Value& node, const Json::Value&) {
  constexpr size_t kGrowth = 64;
  std::string text = node.isString() ? node.asString() : ToJsonText(node);
  const size_t size = text.size();
  text.resize(size + kGrowth);
  text.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(text.data()), size, text.size()));
  node = text;
}

constexpr void (*kChanges[])(Json::Value&, const Json::Value&) = {Replace, Add, Remove, ChangeBytes};

void Collect(Json::Value& node, std::vector<Json::Value*>& nodes) {
  nodes.push_back(&node);
  for (Json::Value& child : node) Collect(child, nodes);
}

/// Changes one place of the tree, with the help of a word or of what stands elsewhere in it.
void Change(Json::Value& tree) {
  std::vector<Json::Value*> nodes;
  Collect(tree, nodes);
  const Json::Value value = Below(2) == 0 ? words[Below(words.size())] : *nodes[Below(nodes.size())];
  kChanges[Below(std::size(kChanges))](*nodes[Below(nodes.size())], value);
}

/// Null when the bytes are no scene, as the empty input that libFuzzer begins with.
Json::Value Load(const std::uint8_t* data, size_t size) {
  const auto scene = TryParseJson(std::string(reinterpret_cast<const char*>(data), size));
  return scene && scene->isObject() ? *scene : Json::Value();
}

/// Stores `scene` with another value for the fuzzed part; the result is 0, for none, when it is of another type or
/// the scene has no room.
size_t Store(Json::Value scene, const Json::Value& part, std::uint8_t* data, size_t max_size) {
  if (part.type() != scene[FUZZED_PART].type()) return 0;
  scene[FUZZED_PART] = part;
  scene.removeMember("expected");
  const std::string text = ToJsonText(scene);
  return text.size() <= max_size ? text.copy(reinterpret_cast<char*>(data), text.size()) : 0;
}

}  // namespace
}  // namespace desk

/// Has the module loaded by the time libFuzzer counts what there is to cover, and what the fixture expects count.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  GTEST_FLAG_SET(throw_on_failure, true);
  desk::TheModule();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  static desk::Stage stage;
  const Json::Value scene = desk::Load(data, size);
  if (!scene.isNull()) stage.Play(scene);
  return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(std::uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  const Json::Value scene = desk::Load(data, size);
  if (scene.isNull()) return 0;
  desk::random_number.seed(seed);
  Json::Value part = scene[FUZZED_PART];
  for (unsigned changes = 1 + desk::Below(4); changes > 0; --changes) desk::Change(part);
  return desk::Store(scene, part, data, max_size);
}
