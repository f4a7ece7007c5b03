#include "example/apisdk/playd/reply_block.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "cli/outcome.h"

namespace {

using apis::ApiPlayer;

// How far labels reach, without the colon: the read commands have longer ones.
constexpr int kLabelWidth = 11;
constexpr int kReadLabelWidth = 17;

void PrintHeader(std::ostream& out, std::string_view command) {
  out << "**************" << command << "**********" << std::endl;
}

// As the stream prints it.
const std::string& Text(const std::string& value) { return value; }
std::string Text(bool value) { return value ? "1" : "0"; }
std::string Text(uint32_t value) { return std::to_string(value); }

template <typename Value>
void PrintLine(std::ostream& out, int width, std::string_view label, const Value& value) {
  out << label << std::string_view("                 ").substr(0, static_cast<std::size_t>(width) - label.size()) << ':'
      << value << std::endl;
  cli::ReportField(out, label, Text(value));
}

void PrintResult(std::ostream& out, int width, const ApiPlayer::UniversalResp& result) {
  PrintLine(out, width, "id", result.unique_id);
  PrintLine(out, width, "result", result.result);
  PrintLine(out, width, "error_code", static_cast<uint32_t>(result.error_code));
  PrintLine(out, width, "error_infor", result.error_infor);
}

}  // namespace

void PrintReply(std::ostream& out, std::string_view command, const ApiPlayer::UniversalResp& reply) {
  PrintHeader(out, command);
  PrintResult(out, kLabelWidth, reply);
}

void PrintReply(std::ostream& out, std::string_view command, const ApiPlayer::GetSeekOfUplayerResp& reply) {
  PrintHeader(out, command);
  PrintResult(out, kReadLabelWidth, reply.result);
  PrintLine(out, kReadLabelWidth, "info_id", reply.unique_id);
  PrintLine(out, kReadLabelWidth, "info_seek_ms", reply.seek_ms);
  PrintLine(out, kReadLabelWidth, "info_duration_ms", reply.duration_ms);
}

void PrintReply(std::ostream& out, std::string_view command, const ApiPlayer::GetMediaInfoOfUplayerResp& reply) {
  PrintHeader(out, command);
  PrintResult(out, kReadLabelWidth, reply.result);
  PrintLine(out, kReadLabelWidth, "info_id", reply.unique_id);
  PrintLine(out, kReadLabelWidth, "info_url", reply.url);
  PrintLine(out, kReadLabelWidth, "info_width", reply.width);
  PrintLine(out, kReadLabelWidth, "info_heigh", reply.heigh);
  PrintLine(out, kReadLabelWidth, "info_duration_ms", reply.duration_ms);
}
