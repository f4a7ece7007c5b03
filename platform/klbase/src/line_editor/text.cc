#include "line_editor/text.h"

#include <utf8proc.h>

#include <cctype>
#include <cstdio>

namespace cli::internal {
namespace {

constexpr utf8proc_int32_t kZeroWidthNonJoiner = 0x200c;
constexpr utf8proc_int32_t kZeroWidthJoiner = 0x200d;

struct Rune {
  utf8proc_int32_t value = -1;  // -1: not UTF-8
  std::size_t length = 1;
};

Rune RuneAt(std::string_view text, std::size_t offset) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + offset;
  if (bytes[0] < 0x80) return {bytes[0], 1};
  utf8proc_int32_t value = -1;
  const auto length = utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(text.size() - offset), &value);
  if (length <= 0) return {};
  return {value, static_cast<std::size_t>(length)};
}

// Characters that a terminal acts on, or whose width it may know better than our tables.
bool IsUnsafe(utf8proc_int32_t rune) {
  switch (utf8proc_category(rune)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_CN:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return true;
    default:
      return false;
  }
}

bool Combines(utf8proc_int32_t rune) {
  if (rune < 0x300) return false;  // no mark has a lower number; decides most text without the tables
  if (rune == kZeroWidthJoiner || rune == kZeroWidthNonJoiner) return true;
  return utf8proc_charwidth(rune) == 0 && !IsUnsafe(rune);
}

// Back over continuation bytes (10xxxxxx) to a first byte. Bytes that don't make up a character count one by one.
std::size_t PreviousRune(std::string_view text, std::size_t offset) {
  constexpr std::size_t kLongestRune = 4;
  for (std::size_t back = 1; back <= kLongestRune && back <= offset; ++back) {
    const auto byte = static_cast<unsigned char>(text[offset - back]);
    if ((byte & 0xc0) == 0x80) continue;
    return RuneAt(text, offset - back).length == back ? offset - back : offset - 1;
  }
  return offset - 1;
}

bool IsWordByte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || static_cast<unsigned char>(c) >= 0x80;
}
bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

// Widths of characters that are written out: 4 for \x1b, 6 for \u202e, 10 for \U000e0041.
Unit UnitAt(std::string_view text, std::size_t offset) {
  const Rune rune = RuneAt(text, offset);
  if (rune.value < 0) return {1, 4, false};
  if (rune.value < 0x20 || rune.value == 0x7f) return {1, 4, false};
  Unit unit{rune.length, 1, true};
  if (rune.value >= 0x80) {
    unit.width = utf8proc_charwidth(rune.value);
    if (unit.width == 0 || IsUnsafe(rune.value)) return {rune.length, rune.value > 0xffff ? 10 : 6, false};
  }
  while (offset + unit.length < text.size()) {
    const Rune next = RuneAt(text, offset + unit.length);
    if (!Combines(next.value)) break;
    unit.length += next.length;
  }
  return unit;
}

void AppendDisplay(std::string& out, std::string_view text, std::size_t offset, const Unit& unit) {
  if (unit.literal) {
    out += text.substr(offset, unit.length);
    return;
  }
  const Rune rune = RuneAt(text, offset);
  char escaped[16];
  if (rune.value < 0x80) {
    std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text[offset]));
  } else {
    std::snprintf(escaped, sizeof escaped, rune.value > 0xffff ? "\\U%08x" : "\\u%04x",
                  static_cast<unsigned int>(rune.value));
  }
  out += escaped;
}

std::size_t PreviousUnit(std::string_view text, std::size_t offset) {
  if (offset == 0) return 0;
  const std::size_t last = PreviousRune(text, offset);
  std::size_t base = last;
  while (base > 0 && Combines(RuneAt(text, base).value)) base = PreviousRune(text, base);
  // A mark that the character before it does not take in is a unit of its own.
  return base + UnitAt(text, base).length >= offset ? base : last;
}

std::size_t NextUnit(std::string_view text, std::size_t offset) {
  return offset >= text.size() ? text.size() : offset + UnitAt(text, offset).length;
}

std::size_t PreviousWord(std::string_view text, std::size_t offset) {
  while (offset > 0 && !IsWordByte(text[offset - 1])) --offset;
  while (offset > 0 && IsWordByte(text[offset - 1])) --offset;
  return offset;
}

std::size_t NextWord(std::string_view text, std::size_t offset) {
  while (offset < text.size() && !IsWordByte(text[offset])) ++offset;
  while (offset < text.size() && IsWordByte(text[offset])) ++offset;
  return offset;
}

std::size_t PreviousBlankWord(std::string_view text, std::size_t offset) {
  while (offset > 0 && IsBlank(text[offset - 1])) --offset;
  while (offset > 0 && !IsBlank(text[offset - 1])) --offset;
  return offset;
}

int DisplayWidth(std::string_view text) {
  int width = 0;
  for (std::size_t offset = 0; offset < text.size();) {
    const Unit unit = UnitAt(text, offset);
    width += unit.width;
    offset += unit.length;
  }
  return width;
}

std::string DisplayPrefix(std::string_view text, int columns) {
  std::string shown;
  for (std::size_t offset = 0; offset < text.size();) {
    const Unit unit = UnitAt(text, offset);
    columns -= unit.width;
    if (columns < 0) break;
    AppendDisplay(shown, text, offset, unit);
    offset += unit.length;
  }
  return shown;
}

}  // namespace cli::internal
