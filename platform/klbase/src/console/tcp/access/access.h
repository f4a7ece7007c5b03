// The password file: the hash in it, and whether a password matches it.
#ifndef KLBASE_CONSOLE_TCP_ACCESS_ACCESS_H_
#define KLBASE_CONSOLE_TCP_ACCESS_ACCESS_H_

#include <string>

namespace cli::internal {

// The password's crypt(3) hash: the first line of `file`. Throws std::runtime_error, with a text for the operator, when
// the file can't be read, is a link, belongs to neither root nor this process's user, gives any right to its group or
// to others, or holds no usable hash.
std::string ReadPasswordHash(const std::string& file);

// Takes as long as the hash's method wants: tens of milliseconds and more. Any thread.
bool PasswordMatches(const std::string& password, const std::string& hash);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_ACCESS_ACCESS_H_
