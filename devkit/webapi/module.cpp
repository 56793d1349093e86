#include "devkit/webapi/module.h"

#include <dlfcn.h>

#include <atomic>
#include <utility>

#include "devkit/device/operation.h"

/// The framework's own record of a call, behind the request and the response.
struct VEXA::APICall {
  const Json::Value& params;
  bool admin;
  std::vector<desk::Answer> answers;
};

namespace desk {
Library::Library(const std::filesystem::path& file)
    : library_(dlopen(("./" / file).c_str(), RTLD_NOW | RTLD_LOCAL), &dlclose) {
  if (library_ == nullptr) throw ModuleError(std::string("cannot load the module: ") + dlerror());
  entry_ = reinterpret_cast<const APITableEntry* (*)()>(dlsym(library_.get(), "GetAPITable"));
  if (entry_ == nullptr) throw ModuleError("'" + file.string() + "' has no function GetAPITable");
}

Module::Module(const std::filesystem::path& file) : library_(file) {
  const APITableEntry* row = library_.Table();
  while (row != nullptr && row->api != nullptr && rows_.size() < kMostRows) rows_.push_back(*row++);
  if (rows_.empty() || rows_.size() == kMostRows) {
    throw ModuleError("'" + file.string() + "' hands out no method table through GetAPITable");
  }
}

APIHandler Module::Find(const std::string& method) const {
  for (const APITableEntry& row : rows_) {
    if (method == MethodName(row)) return row.handler;
  }
  return nullptr;
}

std::string MethodName(const APITableEntry& row) {
  return std::string(row.api) + '/' + std::to_string(row.version) + '/' + (row.method == nullptr ? "" : row.method);
}

std::string Outcome::Problem() const {
  if (thrown) return "left with an exception: " + *thrown;
  if (answers.size() == 1) return "";
  return "answered " + std::to_string(answers.size()) + " times";
}

Outcome Call(APIHandler handler, const Json::Value& params, bool admin, const std::string& method) {
  static std::atomic<unsigned> calls{0};
  Trace& trace = Device::Get().trace;
  current_call = ++calls;
  current_method = method;
  current_begin = std::chrono::steady_clock::now();
  if (admin) trace.Learn(current_call, params);
  VEXA::APICall call{params, admin, {}};
  VEXA::APIRequest request(call);
  VEXA::APIResponse response(call);
  Outcome outcome;
  call_log = &outcome.log;
  try {
    handler(&request, &response);
  } catch (const std::exception& problem) {
    outcome.thrown = problem.what();
  } catch (...) {
    outcome.thrown = "not a std::exception";
  }
  call_log = nullptr;
  outcome.number = std::exchange(current_call, 0);
  current_method.clear();
  trace.EndCall(outcome.log);
  trace.Forget(outcome.number);
  outcome.answers = std::move(call.answers);
  return outcome;
}

}  // namespace desk

namespace VEXA {

using desk::Args;
using desk::Operation;

bool APIRequest::IsAdmin() { return desk::Give("APIRequest::IsAdmin", call_->admin); }

bool APIRequest::HasParam(const std::string& name) {
  return Operation("APIRequest::HasParam", Args(name)).Run([&] { return call_->params.isMember(name); });
}

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& fallback) {
  return Operation("APIRequest::GetParam", Args(name, fallback)).Run([&] {
    return name.empty() ? call_->params : call_->params.get(name, fallback);
  });
}

void APIResponse::SetSuccess(const Json::Value& payload) {
  Operation("APIResponse::SetSuccess", Args(payload)).Run([&] {
    call_->answers.push_back({true, 0, payload});
    return true;
  });
}

void APIResponse::SetError(int code, const Json::Value& data) {
  Operation("APIResponse::SetError", Args(code, data)).Run([&] {
    call_->answers.push_back({false, code, data});
    return true;
  });
}

}  // namespace VEXA
