// Which keys an operator pressed, from the bytes that terminals of all kinds send for them.
#ifndef KLBASE_LINE_EDITOR_KEYS_H_
#define KLBASE_LINE_EDITOR_KEYS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace cli::internal {

enum class Key : std::uint8_t {
  kNone,     // nothing to do: the rest of a sequence, a key without a meaning here
  kText,     // KeyPress::text
  kRefused,  // a control character without a meaning here
  kEscape,   // an escape sequence begins; its key follows
  kEnter,
  kTab,
  kInterrupt,
  kDeleteOrEnd,
  kBackspace,
  kDelete,
  kLeft,
  kRight,
  kUp,
  kDown,
  kHome,
  kEnd,
  kWordLeft,
  kWordRight,
  kKillToEnd,
  kKillToStart,
  kKillBlankWordBack,
  kKillWordBack,
  kKillWord,
  kYank,
  kYankOlder,
  kTranspose,
  kUndo,
  kLastWord,
  kClearScreen,
  kSearchBack,
  kSearchForward,
  kCancel,
  kPrefixBack,
  kPrefixForward,
  kFirstLine,
  kLastLine,
};

struct KeyPress {
  Key key = Key::kNone;
  // Printable bytes: a whole UTF-8 character, or bytes that are not one. Valid until the next call.
  std::string_view text;
};

// Bytes in, keys out, one byte at a time. Sequences it does not know are swallowed whole, but never more than
// kMaxSequence bytes and never a line's end.
class KeyDecoder {
 public:
  static constexpr std::size_t kMaxSequence = 1024;

  // The keys that `byte` completes: none, one, or the bytes of an unfinished character and one.
  struct Keys {
    std::array<KeyPress, 2> press;
    std::size_t count = 0;
    void Add(Key key, std::string_view text = {}) { press[count++] = {key, text}; }
  };
  Keys Put(char byte);

  // True when `byte` only belongs to the line end before it: the LF or NUL after a CR.
  bool BelongsToLineEnd(char byte) const { return after_return_ && (byte == '\n' || byte == '\0'); }
  // Text is being pasted: its bytes are not keys, and tabs are blanks.
  bool Pasting() const { return pasting_; }

 private:
  enum class State : std::uint8_t {
    kGround,
    kCharacter,      // inside a UTF-8 character
    kEscape,         // after ESC
    kControl,        // after ESC [
    kFunctionKey,    // after ESC [ [, the Linux console's function keys
    kSingleShift,    // after ESC O
    kString,         // after ESC ] and the like, up to BEL or ESC backslash
    kMetaCharacter,  // a UTF-8 character after ESC
  };

  void Ground(unsigned char byte, Keys& keys);
  void Control(unsigned char byte, Keys& keys);
  void Character(unsigned char byte, Keys& keys);
  void Escape(unsigned char byte, Keys& keys);
  void ControlSequence(unsigned char byte, Keys& keys);
  void SingleShift(unsigned char byte, Keys& keys);
  void String(unsigned char byte, Keys& keys);
  Key FinishControlSequence(unsigned char final);

  State state_ = State::kGround;
  bool after_return_ = false;
  bool pasting_ = false;
  std::size_t sequence_length_ = 0;
  std::string parameters_;    // of a control sequence
  std::string character_;     // as far as it has come
  std::string broken_;        // bytes that turned out to be no character
  std::string text_;          // KeyPress::text points to it
  std::size_t expected_ = 0;  // length of character_
};

}  // namespace cli::internal

#endif  // KLBASE_LINE_EDITOR_KEYS_H_
