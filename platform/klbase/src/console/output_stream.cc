#include "console/output_stream.h"

#include <string_view>

namespace cli::internal {

OutputStream::OutputStream(CommandOutput* output, bool on_screen) : std::ostream(nullptr), buffer_(output, on_screen) {
  rdbuf(&buffer_);  // the base class is constructed before buffer_, so it can't be given it
}

void OutputStream::Reset() {
  exceptions(std::ios_base::goodbit);  // before clear(), which would throw for a badbit
  clear();
  flags(std::ios_base::skipws | std::ios_base::dec);
  precision(6);
  width(0);
  fill(' ');
}

std::streamsize OutputStream::Buffer::xsputn(const char* text, std::streamsize count) {
  const std::string_view piece(text, static_cast<std::size_t>(count));
  return (filter_.Empty() ? Print(piece) : Print(filter_.Pass(piece))) ? count : 0;
}

std::optional<std::size_t> OutputStream::Buffer::Finish() {
  std::optional<std::size_t> count;
  if (!filter_.Empty()) Print(filter_.Finish(count));
  PassOn(cleaner_.Finish());
  return count;
}

OutputStream::Buffer::int_type OutputStream::Buffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const char character = traits_type::to_char_type(c);
  return xsputn(&character, 1) == 1 ? c : traits_type::eof();
}

}  // namespace cli::internal
