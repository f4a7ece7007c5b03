// Tab and the dim hint for words that name and fill messages.
#ifndef EXAMPLE_RPC_MESSAGES_MESSAGE_COMPLETION_H_
#define EXAMPLE_RPC_MESSAGES_MESSAGE_COMPLETION_H_

#include <google/protobuf/descriptor.h>

#include <string>
#include <vector>

#include "cli/parameter_completer.h"
#include "example/rpc/messages/message_catalog.h"

namespace rpc {

using Candidates = std::vector<cli::ParameterCandidate>;

// The types whose names begin with `typed`: by their short names, else by their full ones, else without regard to case.
Candidates CompleteType(const MessageCatalog& catalog, const std::string& typed);

// What `typed` may become behind the words `given`: fields that are not set yet, and behind "=" an enum's or a bool's
// values.
Candidates CompleteField(const google::protobuf::Descriptor& type, const std::vector<std::string>& given,
                         const std::string& typed);

// The next field with its type, as it follows the last of `words`, which is being typed; "" when there is none.
std::string FieldHint(const google::protobuf::Descriptor& type, const std::vector<std::string>& words);

}  // namespace rpc

#endif  // EXAMPLE_RPC_MESSAGES_MESSAGE_COMPLETION_H_
