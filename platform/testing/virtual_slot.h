// Where a class's virtual operations stand in its table: programs that were built against an earlier header call them
// by that place, so it is part of the contract.
#ifndef PLATFORM_TESTING_VIRTUAL_SLOT_H_
#define PLATFORM_TESTING_VIRTUAL_SLOT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vextest {

// The place of a virtual operation, counted from 0; a virtual destructor takes two. By the Itanium C++ ABI, which all
// of our compilers follow: the first word of a member pointer is the operation's offset in the table, on x86 plus one.
template <typename Member>
std::size_t VirtualSlot(Member member) {
  std::uintptr_t words[2];
  static_assert(sizeof words == sizeof member);
  std::memcpy(words, &member, sizeof words);
  return words[0] / sizeof(void*);
}

// How many places the table of T has: where the next operation would stand. Two for a class with nothing but its
// virtual destructor.
template <typename T>
std::size_t VirtualSlots() {
  struct Next : T {
    virtual void Further() {}
  };
  return VirtualSlot(&Next::Further);
}

}  // namespace vextest

#endif  // PLATFORM_TESTING_VIRTUAL_SLOT_H_
