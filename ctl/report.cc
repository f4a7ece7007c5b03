#include "ctl/report.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "text/clean_text.h"

namespace vexctl {
namespace {

std::string Text(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string MemberText(const Json& reply, const char* name) {
  const auto found = reply.find(name);
  return found != reply.end() && found->is_string() ? found->get<std::string>() : "";
}

}  // namespace

int ExitStatus(std::string_view status) {
  if (status == "ok") return kExitOk;
  if (status == "usage") return kExitUsage;
  if (status == "unreachable") return kExitUnreachable;
  if (status == "timeout") return kExitTimeout;
  if (status == "cancelled") return kExitCancelled;
  return kExitRefused;
}

Json MadeReply(std::string_view status, const std::string& reason) {
  return {{"status", status}, {"code", 0}, {"reason", reason}, {"output", ""}, {"fields", Json::object()}, {"us", 0}};
}

Report::Report(const Arguments& arguments)
    : arguments_(arguments),
      cleans_output_(!arguments.json && ::isatty(STDOUT_FILENO) == 1),
      cleans_errors_(::isatty(STDERR_FILENO) == 1) {}

int Report::Reply(const Json& reply) {
  const std::string status = MemberText(reply, "status");
  const int exit = ExitStatus(status);
  if (arguments_.quiet) return exit;
  if (arguments_.json) {
    Json shown = place_.empty() || exit == kExitOk ? Json::object() : Json{{"at", place_}};
    for (const auto& [key, value] : reply.items()) {
      if (key != "id") shown[key] = value;
    }
    Print(Text(shown) + '\n');
    return exit;
  }
  if (arguments_.field.empty()) Print(MemberText(reply, "output"));
  if (reply.contains("truncated")) Complain("the output was longer than 4 MiB and was cut");
  if (exit != kExitOk) {
    const auto code = reply.find("code");
    const bool has_code = code != reply.end() && *code != 0;
    Complain(status + ": " + MemberText(reply, "reason") + (has_code ? " (code " + code->dump() + ")" : "") +
             (status == "timeout" && arguments_.within ? "; --within sets the time" : ""));
  }
  return exit;
}

int Report::Field(const Json& reply) {
  if (arguments_.quiet || arguments_.field.empty()) return kExitOk;
  const Json fields = reply.value("fields", Json::object());
  const std::string& name = arguments_.field;
  if (const auto field = fields.find(name); field != fields.end() && field->is_string()) {
    Print(field->get<std::string>() + '\n');
    return kExitOk;
  }
  if (name == "status" || name == "reason") {
    Print(MemberText(reply, name.c_str()) + '\n');
    return kExitOk;
  }
  if (name == "code" || name == "us") {
    Print(reply.value(name, Json(0)).dump() + '\n');
    return kExitOk;
  }
  std::string names;
  for (const auto& [key, value] : fields.items()) names += key + ", ";
  Complain("the reply has no field \"" + name + "\"; it has " + names + "status, code, reason and us");
  return kExitRefused;
}

void Report::Event(std::string_view raw) {
  if (arguments_.quiet) return;
  if (arguments_.json) {
    Print(raw);
    return Print("\n");
  }
  const Json line = Json::parse(raw, nullptr, false);
  if (!line.is_object()) return;
  if (line.contains("event")) Print(MemberText(line["event"], "text"));
  if (line.contains("missed"))
    Complain(line["missed"].dump() + " events were missed: what they are written to is too slow");
}

void Report::Complain(const std::string& text) {
  // What was printed before stands before it, also where both go to one terminal.
  Flush();
  const std::string said = (place_.empty() ? "" : place_ + ": ") + text;
  const std::string line = "vexctl: " + (cleans_errors_ ? klbase_internal::CleanOnOneLine(said) : said) + "\n";
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    // Nobody is left to be told.
  }
}

bool Report::Flush() {
  // It is whole: a line's output, or whole events.
  if (cleans_output_) output_ = klbase_internal::CleanForScreen(output_);
  std::string_view left = output_;
  while (!left.empty() && !failed_) {
    const ssize_t count = ::write(STDOUT_FILENO, left.data(), left.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      failed_ = true;
      const std::string line = std::string("vexctl: the output can't be written: ") + std::strerror(errno) + "\n";
      if (::write(STDERR_FILENO, line.data(), line.size()) < 0) break;
    } else {
      left.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  output_.clear();
  return !failed_;
}

}  // namespace vexctl
