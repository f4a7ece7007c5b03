#include "line_editor/keys.h"

#include <cstdlib>

namespace cli::internal {
namespace {

constexpr unsigned char kEscapeByte = 0x1b;
constexpr unsigned char kDeleteByte = 0x7f;

// The keys of the control characters, by their value.
constexpr std::array<Key, 32> kControlKeys = [] {
  std::array<Key, 32> keys{};
  keys.fill(Key::kRefused);
  const auto set = [&keys](char letter, Key key) { keys[static_cast<std::size_t>(letter - '@')] = key; };
  set('@', Key::kNone);
  set('A', Key::kHome);
  set('B', Key::kLeft);
  set('C', Key::kInterrupt);
  set('D', Key::kDeleteOrEnd);
  set('E', Key::kEnd);
  set('F', Key::kRight);
  set('G', Key::kCancel);
  set('H', Key::kBackspace);
  set('I', Key::kTab);
  set('J', Key::kEnter);
  set('K', Key::kKillToEnd);
  set('L', Key::kClearScreen);
  set('M', Key::kEnter);
  set('N', Key::kDown);
  set('P', Key::kUp);
  set('R', Key::kSearchBack);
  set('S', Key::kSearchForward);
  set('T', Key::kTranspose);
  set('U', Key::kKillToStart);
  set('W', Key::kKillBlankWordBack);
  set('Y', Key::kYank);
  set('_', Key::kUndo);
  return keys;
}();

struct Binding {
  unsigned char byte;
  Key key;
};

// ESC and a character, as Alt sends it too.
constexpr Binding kMetaKeys[] = {
    {'b', Key::kWordLeft},  {'f', Key::kWordRight}, {'d', Key::kKillWord},      {'y', Key::kYankOlder},
    {'.', Key::kLastWord},  {'_', Key::kLastWord},  {'p', Key::kPrefixBack},    {'n', Key::kPrefixForward},
    {'<', Key::kFirstLine}, {'>', Key::kLastLine},  {0x08, Key::kKillWordBack}, {0x7f, Key::kKillWordBack},
};

// Final bytes of ESC [ and ESC O sequences; the lower-case ones are rxvt's, with Shift or Ctrl.
constexpr Binding kCursorKeys[] = {
    {'A', Key::kUp},  {'B', Key::kDown}, {'C', Key::kRight}, {'D', Key::kLeft},  {'H', Key::kHome},
    {'F', Key::kEnd}, {'a', Key::kUp},   {'b', Key::kDown},  {'c', Key::kRight}, {'d', Key::kLeft},
};

// ESC [ number ~ ; the numbers of VT220, Linux console, rxvt.
constexpr Binding kNumberedKeys[] = {
    {1, Key::kHome},          {3, Key::kDelete}, {4, Key::kEnd}, {5, Key::kPrefixBack},
    {6, Key::kPrefixForward}, {7, Key::kHome},   {8, Key::kEnd},
};

template <std::size_t kSize>
Key Find(const Binding (&bindings)[kSize], unsigned char byte) {
  for (const Binding& binding : bindings) {
    if (binding.byte == byte) return binding.key;
  }
  return Key::kNone;
}

Key WithWordModifier(Key key) {
  switch (key) {
    case Key::kLeft:
      return Key::kWordLeft;
    case Key::kRight:
      return Key::kWordRight;
    case Key::kDelete:
      return Key::kKillWord;
    default:
      return key;
  }
}

// "5;3" after ESC [ : the key's number and its modifiers (1 + Shift 1, Alt 2, Ctrl 4, Meta 8).
bool HasWordModifier(const std::string& parameters) {
  const auto semicolon = parameters.find(';');
  if (semicolon == std::string::npos) return false;
  const int modifiers = std::atoi(parameters.c_str() + semicolon + 1) - 1;
  return modifiers > 0 && (modifiers & ~1) != 0;
}

std::size_t CharacterLength(unsigned char first) {
  if (first >= 0xc2 && first <= 0xdf) return 2;
  if (first >= 0xe0 && first <= 0xef) return 3;
  if (first >= 0xf0 && first <= 0xf4) return 4;
  return 1;
}

bool IsContinuation(unsigned char byte) { return (byte & 0xc0) == 0x80; }

}  // namespace

KeyDecoder::Keys KeyDecoder::Put(char input) {
  const auto byte = static_cast<unsigned char>(input);
  Keys keys;
  const bool swallowed = BelongsToLineEnd(input);
  after_return_ = false;
  if (swallowed) return keys;
  // A sequence without an end must not swallow all keys behind it.
  if (state_ != State::kGround && state_ != State::kCharacter && ++sequence_length_ > kMaxSequence) {
    state_ = State::kGround;
  }
  switch (state_) {
    case State::kGround:
      Ground(byte, keys);
      break;
    case State::kCharacter:
      Character(byte, keys);
      break;
    case State::kEscape:
      Escape(byte, keys);
      break;
    case State::kControl:
      ControlSequence(byte, keys);
      break;
    case State::kFunctionKey:
      state_ = State::kGround;
      if (byte < 0x20) Ground(byte, keys);  // Enter and Ctrl-C are never part of a sequence
      break;
    case State::kSingleShift:
      SingleShift(byte, keys);
      break;
    case State::kString:
      String(byte, keys);
      break;
    case State::kMetaCharacter:
      if (IsContinuation(byte)) break;
      state_ = State::kGround;
      Ground(byte, keys);
      break;
  }
  return keys;
}

void KeyDecoder::Ground(unsigned char byte, Keys& keys) {
  if (byte < 0x20 || byte == kDeleteByte) {
    Control(byte, keys);
  } else if (byte < 0x80 || (expected_ = CharacterLength(byte)) == 1) {
    text_.assign(1, static_cast<char>(byte));
    keys.Add(Key::kText, text_);
  } else {
    character_.assign(1, static_cast<char>(byte));
    state_ = State::kCharacter;
  }
}

void KeyDecoder::Control(unsigned char byte, Keys& keys) {
  if (byte == kEscapeByte) {
    state_ = State::kEscape;
    sequence_length_ = 0;
    keys.Add(Key::kEscape);
    return;
  }
  Key key = byte == kDeleteByte ? Key::kBackspace : kControlKeys[byte];
  after_return_ = byte == '\r';
  if (pasting_) {
    // Pasted characters are text, not keys. Ctrl-C is the way out when a paste's end got lost.
    if (key == Key::kTab) {
      text_.assign(1, ' ');
      keys.Add(Key::kText, text_);
      return;
    }
    if (key == Key::kInterrupt) {
      pasting_ = false;
    } else if (key != Key::kEnter && key != Key::kNone) {
      key = Key::kRefused;
    }
  }
  if (key != Key::kNone) keys.Add(key);
}

// A character is handed on when it is whole: half of one would be shown as garbage for the moment until the rest comes.
void KeyDecoder::Character(unsigned char byte, Keys& keys) {
  if (IsContinuation(byte)) {
    character_.push_back(static_cast<char>(byte));
    if (character_.size() < expected_) return;
    text_.swap(character_);
    state_ = State::kGround;
    keys.Add(Key::kText, text_);
    return;
  }
  state_ = State::kGround;
  Keys rest;
  // character_ keeps the broken bytes while Ground() may use text_; a new character begins in character_, so move it.
  broken_.swap(character_);
  Ground(byte, rest);
  keys.Add(Key::kText, broken_);
  if (rest.count > 0) keys.Add(rest.press[0].key, rest.press[0].text);
}

void KeyDecoder::Escape(unsigned char byte, Keys& keys) {
  state_ = State::kGround;
  if (const Key key = Find(kMetaKeys, byte); key != Key::kNone) {
    keys.Add(pasting_ ? Key::kNone : key);
    return;
  }
  switch (byte) {
    case '[':
      state_ = State::kControl;
      parameters_.clear();
      return;
    case 'O':
      state_ = State::kSingleShift;
      parameters_.clear();
      return;
    case ']':
    case 'P':
    case 'X':
    case '^':
      state_ = State::kString;
      return;
    default:
      break;
  }
  if (byte < 0x20) {
    Control(byte, keys);
  } else if (byte >= 0xc0) {
    state_ = State::kMetaCharacter;
  }
}

void KeyDecoder::ControlSequence(unsigned char byte, Keys& keys) {
  const bool is_private = !parameters_.empty() && parameters_[0] >= '<' && parameters_[0] <= '?';
  if (byte == '[' && parameters_.empty()) {
    state_ = State::kFunctionKey;
  } else if (byte >= 0x40 && byte <= 0x7e) {
    state_ = State::kGround;
    keys.Add(is_private ? Key::kNone : FinishControlSequence(byte));
  } else if (byte == '$' && !is_private && !parameters_.empty()) {
    state_ = State::kGround;  // rxvt ends keys pressed with Shift this way
    keys.Add(FinishControlSequence('~'));
  } else if (byte >= 0x20 && byte <= 0x3f) {
    if (parameters_.size() < 32) parameters_.push_back(static_cast<char>(byte));
  } else {
    state_ = State::kGround;
    Ground(byte, keys);
  }
}

Key KeyDecoder::FinishControlSequence(unsigned char final) {
  if (final == '~' && parameters_ == "200") {
    pasting_ = true;
    return Key::kNone;
  }
  if (final == '~' && parameters_ == "201") {
    pasting_ = false;
    return Key::kNone;
  }
  if (pasting_) return Key::kNone;
  Key key = Find(kCursorKeys, final);
  bool word = HasWordModifier(parameters_);
  if (final == '~' || final == '^' || final == '@') {  // ^ and @ are rxvt's Ctrl
    const int number = std::atoi(parameters_.c_str());
    key = number > 0 && number < 32 ? Find(kNumberedKeys, static_cast<unsigned char>(number)) : Key::kNone;
    word = word || final != '~';
  }
  return word ? WithWordModifier(key) : key;
}

void KeyDecoder::SingleShift(unsigned char byte, Keys& keys) {
  if ((byte >= '0' && byte <= '9') || byte == ';') {  // old xterms put the modifiers here
    if (parameters_.size() < 32) parameters_.push_back(static_cast<char>(byte));
    return;
  }
  state_ = State::kGround;
  if (byte < 0x20 || byte >= 0x80) {
    Ground(byte, keys);
    return;
  }
  if (pasting_) return;
  const bool word = (byte >= 'a' && byte <= 'd') || std::atoi(parameters_.c_str()) > 2 || HasWordModifier(parameters_);
  const Key key = byte == 'M' ? Key::kEnter : Find(kCursorKeys, byte);  // M is the keypad's Enter
  keys.Add(word ? WithWordModifier(key) : key);
}

void KeyDecoder::String(unsigned char byte, Keys& keys) {
  if (byte == kEscapeByte) {
    state_ = State::kEscape;  // ESC backslash ends it; any other sequence stands for itself
  } else if (byte == '\a') {
    state_ = State::kGround;
  } else if (byte < 0x20) {
    state_ = State::kGround;
    Control(byte, keys);
  }
}

}  // namespace cli::internal
