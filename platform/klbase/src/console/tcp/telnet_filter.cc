#include "console/tcp/telnet_filter.h"

#include <libtelnet.h>

#include <cstring>
#include <new>
#include <utility>

namespace cli::internal {
namespace {

// Options that we do (WILL) and let the client do (DO). All others are refused, LINEMODE too: the line is edited
// here. BINARY is let through in both directions because nothing changes by it: bytes above 127 are UTF-8 anyway.
constexpr telnet_telopt_t kOptions[] = {
    {TELNET_TELOPT_ECHO, TELNET_WILL, TELNET_DONT}, {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_BINARY, TELNET_WILL, TELNET_DO}, {TELNET_TELOPT_NAWS, TELNET_WONT, TELNET_DO},
    {TELNET_TELOPT_TTYPE, TELNET_WONT, TELNET_DO},  {-1, 0, 0},
};

}  // namespace

void TelnetFilter::Free::operator()(telnet_t* telnet) const { telnet_free(telnet); }

TelnetFilter::TelnetFilter() : telnet_(telnet_init(kOptions, &TelnetFilter::OnEvent, 0, this)) {
  if (!telnet_) throw std::bad_alloc();
}

TelnetFilter::~TelnetFilter() = default;

void TelnetFilter::Offer() {
  telnet_negotiate(telnet_.get(), TELNET_WILL, TELNET_TELOPT_ECHO);
  telnet_negotiate(telnet_.get(), TELNET_WILL, TELNET_TELOPT_SGA);
  telnet_negotiate(telnet_.get(), TELNET_DO, TELNET_TELOPT_NAWS);
  telnet_negotiate(telnet_.get(), TELNET_DO, TELNET_TELOPT_TTYPE);
}

void TelnetFilter::StopEcho() {
  telnet_negotiate(telnet_.get(), TELNET_WONT, TELNET_TELOPT_ECHO);
  telnet_negotiate(telnet_.get(), TELNET_WONT, TELNET_TELOPT_SGA);
}

void TelnetFilter::Receive(std::string_view bytes, Receiver& receiver) {
  if (failed_) return;
  receiver_ = &receiver;
  telnet_recv(telnet_.get(), bytes.data(), bytes.size());
  receiver_ = nullptr;
}

std::string TelnetFilter::TakeReplies() { return std::exchange(replies_, {}); }

void TelnetFilter::OnEvent(telnet_t*, telnet_event_t* event, void* filter) {
  static_cast<TelnetFilter*>(filter)->Handle(*event);
}

void TelnetFilter::Handle(const telnet_event_t& event) {
  if (event.type == TELNET_EV_SEND) {
    replies_.append(event.data.buffer, event.data.size);
    return;
  }
  if (failed_ || receiver_ == nullptr) return;
  switch (event.type) {
    case TELNET_EV_DATA:
      if (event.data.size > 0) receiver_->OnData({event.data.buffer, event.data.size});
      break;
    case TELNET_EV_IAC:
      HandleCommand(event.iac.cmd);
      break;
    case TELNET_EV_DO:
    case TELNET_EV_DONT:
      if (event.neg.telopt == TELNET_TELOPT_ECHO) receiver_->OnEcho(event.type == TELNET_EV_DO);
      break;
    case TELNET_EV_WILL:
      if (event.neg.telopt == TELNET_TELOPT_TTYPE) telnet_ttype_send(telnet_.get());
      break;
    case TELNET_EV_SUBNEGOTIATION:
      HandleSubnegotiation(event.sub.telopt, {event.sub.buffer, event.sub.size});
      break;
    case TELNET_EV_TTYPE:
      if (event.ttype.cmd == TELNET_TTYPE_IS) receiver_->OnTerminalType(event.ttype.name);
      break;
    case TELNET_EV_COMPRESS:
      // The library inflates all later bytes although compression was never offered.
      Fail("compression was not offered");
      break;
    case TELNET_EV_WARNING:
      // The rest of an overlong subnegotiation would arrive as typed data. The library leaves the event's code unset,
      // so its text has to tell.
      if (std::strstr(event.error.msg, "limit reached") != nullptr) {
        Fail("subnegotiation too long");
      }
      break;
    case TELNET_EV_ERROR:
      Fail(event.error.msg);
      break;
    default:
      break;
  }
}

void TelnetFilter::HandleCommand(unsigned char command) {
  switch (command) {
    case TELNET_IP:
    case TELNET_BREAK:
    case TELNET_ABORT:
      receiver_->OnInterrupt();
      break;
    case TELNET_AYT:
      receiver_->OnAreYouThere();
      break;
    case TELNET_EC:
      receiver_->OnData("\x7f");
      break;
    case TELNET_EL:
      receiver_->OnData("\x15");
      break;
    case TELNET_EOF:
      receiver_->OnData("\x04");
      break;
    default:  // NOP, DM, GA, AO, SUSP: nothing to do, and nothing behind them is lost
      break;
  }
}

void TelnetFilter::HandleSubnegotiation(unsigned char option, std::string_view bytes) {
  if (option != TELNET_TELOPT_NAWS || bytes.size() != 4) return;
  const auto number = [&bytes](std::size_t at) {
    return static_cast<unsigned char>(bytes[at]) * 256 + static_cast<unsigned char>(bytes[at + 1]);
  };
  receiver_->OnWindowSize(number(0), number(2));
}

void TelnetFilter::Fail(std::string_view text) {
  failed_ = true;
  receiver_->OnProtocolError(text);
}

}  // namespace cli::internal
