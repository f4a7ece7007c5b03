// The bytes of a program on the control socket: lines, requests and their ids, and what an attached terminal sends. The
// same bytes in any pieces give the same requests, keys and window sizes.
//
// The input: the kind of client, the sizes of the pieces (a line), then the bytes.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "console/control/protocol/attached_input.h"
#include "console/control/protocol/reply.h"
#include "console/control/protocol/request.h"
#include "fuzz/fuzz.h"
#include "line_editor/limits.h"

namespace {

using cli::internal::AttachedInput;
using cli::internal::ParsedRequest;
using cli::internal::Request;
using cli::internal::RequestLines;
using fuzz::Input;
using Json = nlohmann::json;

template <typename Receive>
void InPieces(std::string_view bytes, std::string_view sizes, Receive receive) {
  for (std::size_t i = 0; !bytes.empty(); ++i) {
    const auto size = sizes.empty() ? 1 : 1 + static_cast<unsigned char>(sizes[i % sizes.size()]) % 32;
    const std::string piece(bytes.substr(0, size));  // a copy of its own: a byte too far is noticed
    bytes.remove_prefix(piece.size());
    receive(piece);
  }
}

bool HasControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == '\x7f'; });
}

// The id, as another parser finds it.
void CheckId(std::string_view line, const std::string& id) {
  if (id.empty()) return;
  const Json object = Json::parse(line, nullptr, false);
  const Json reply = Json::parse(cli::internal::StatusReply(id, cli::Status::kOk), nullptr, false);
  FUZZ_CHECK(object.is_object() && reply.is_object(), fuzz::Detail(line));
  FUZZ_CHECK_EQUAL(reply["id"].dump(), object["id"].dump());
  FUZZ_CHECK(reply["id"].is_number_integer() || reply["id"].is_string(), fuzz::Detail(line));
}

void CheckRequest(std::string_view line) {
  const ParsedRequest parsed = cli::internal::ParseRequest(line);
  FUZZ_CHECK(parsed.request.has_value() == parsed.error.empty(), fuzz::Detail(line));
  CheckId(line, parsed.id);
  if (!parsed.request) {
    const std::string reply = cli::internal::StatusReply(parsed.id, cli::Status::kUsage, parsed.error);
    FUZZ_CHECK(Json::accept(reply) && std::count(reply.begin(), reply.end(), '\n') == 1, fuzz::Detail(reply));
    return;
  }
  const Request& request = *parsed.request;
  FUZZ_CHECK_EQUAL(request.id, parsed.id);
  if (request.kind == Request::Kind::kRun || request.kind == Request::Kind::kComplete) {
    FUZZ_CHECK(!HasControl(request.text) && request.text.size() <= cli::internal::kMaxLineBytes, fuzz::Detail(line));
    FUZZ_CHECK(!request.within || request.within->count() > 0, fuzz::Detail(line));
  }
  if (request.kind == Request::Kind::kTerminal) {
    FUZZ_CHECK(request.columns > 0 && request.rows > 0, fuzz::Detail(line));
  }
}

std::vector<std::string> Lines(std::string_view bytes, std::string_view sizes) {
  RequestLines lines;
  std::vector<std::string> taken;
  InPieces(bytes, sizes, [&](const std::string& piece) {
    lines.Feed(piece, [&taken](std::string_view line, bool whole) { taken.emplace_back(whole ? line : "(too long)"); });
  });
  return taken;
}

std::vector<std::string> ExpectedLines(std::string_view bytes) {
  std::vector<std::string> lines;
  for (std::size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
    const std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    if (line.size() > cli::internal::kMaxRequestBytes) {
      lines.emplace_back("(too long)");
    } else if (line.find_first_not_of(" \t\r") != std::string_view::npos) {
      lines.emplace_back(line);
    }
  }
  return lines;
}

void CheckProgram(std::string_view bytes, std::string_view sizes) {
  const std::vector<std::string> lines = Lines(bytes, sizes);
  FUZZ_CHECK_EQUAL(lines, ExpectedLines(bytes));
  for (const std::string& line : lines) CheckRequest(line);
}

// --- a terminal

class Collector : public AttachedInput::Receiver {
 public:
  void OnTyped(std::string_view bytes) override { typed += bytes; }
  void OnWindowSize(int columns, int rows) override {
    FUZZ_CHECK(columns > 0 && columns <= 65535 && rows > 0 && rows <= 65535, fuzz::Detail(columns));
    sizes.push_back(fuzz::Detail(typed.size()) + ": " + fuzz::Detail(columns) + "x" + fuzz::Detail(rows));
  }
  std::string typed;
  std::vector<std::string> sizes;
};

void CheckTerminal(std::string_view bytes, std::string_view sizes) {
  AttachedInput whole_input;
  Collector whole;
  whole_input.Feed(bytes, whole);
  AttachedInput pieces_input;
  Collector pieces;
  InPieces(bytes, sizes, [&](const std::string& piece) { pieces_input.Feed(piece, pieces); });
  FUZZ_CHECK_EQUAL(pieces.typed, whole.typed);
  FUZZ_CHECK_EQUAL(pieces.sizes, whole.sizes);
  if (bytes.find('\xff') == std::string_view::npos) FUZZ_CHECK_EQUAL(whole.typed, std::string(bytes));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const int kind = input.Number(0, 1);
  const std::string_view sizes = input.Line();
  const std::string_view bytes = input.Rest();
  kind == 0 ? CheckProgram(bytes, sizes) : CheckTerminal(bytes, sizes);
  return 0;
}
