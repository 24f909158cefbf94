// The bytes of replies.
#pragma once

#include <string>
#include <string_view>

#include "agent/live/exchange.h"

namespace vnagent {

struct ReplyForm {
  bool isHead = false;    // the request was HEAD: no body
  bool isHttp10 = false;  // of the request
  bool closes = false;    // no other request is taken on this connection
};

// The status line and the headers, up to the empty line. `streams`: the length is not known.
std::string replyHead(const Reply& reply, const ReplyForm& form, bool streams);

}  // namespace vnagent
