// The telnet protocol (RFC 854, 855, 857, 858, 1073, 1091, 1143): takes the bytes of a connection apart into typed data
// and events, and makes the replies. No I/O, no threads; the result is the same at whatever byte the input is split.
#ifndef KLBASE_CONSOLE_TCP_TELNET_FILTER_H_
#define KLBASE_CONSOLE_TCP_TELNET_FILTER_H_

#include <memory>
#include <string>
#include <string_view>

struct telnet_t;
union telnet_event_t;

namespace cli::internal {

class TelnetFilter {
 public:
  // Gets the input in its order. Called from Receive() only.
  class Receiver {
   public:
    virtual ~Receiver() = default;
    // Typed bytes. IAC EC, EL and EOF arrive here as the keys that do the same: DEL, Ctrl-U, Ctrl-D.
    virtual void OnData(std::string_view bytes) = 0;
    virtual void OnInterrupt() = 0;    // IAC IP, BRK or ABORT
    virtual void OnAreYouThere() = 0;  // IAC AYT
    virtual void OnWindowSize(int columns, int rows) = 0;
    virtual void OnTerminalType(const std::string& name) = 0;
    // Whether the client leaves echoing to us.
    virtual void OnEcho(bool ours) = 0;
    // The peer broke the protocol; everything it sends from now on is dropped.
    virtual void OnProtocolError(std::string_view text) = 0;
  };

  TelnetFilter();
  ~TelnetFilter();
  TelnetFilter(const TelnetFilter&) = delete;
  TelnetFilter& operator=(const TelnetFilter&) = delete;

  // Makes the offers of a server that speaks first: WILL ECHO, WILL SGA, DO NAWS, DO TTYPE.
  void Offer();
  // Takes the offer to echo back, for a terminal that can't be driven.
  void StopEcho();
  void Receive(std::string_view bytes, Receiver& receiver);
  // The protocol bytes to send since the last call, escaped as they must be.
  std::string TakeReplies();

 private:
  static void OnEvent(telnet_t* telnet, telnet_event_t* event, void* filter);
  void Handle(const telnet_event_t& event);
  void HandleCommand(unsigned char command);
  void HandleSubnegotiation(unsigned char option, std::string_view bytes);
  void Fail(std::string_view text);

  struct Free {
    void operator()(telnet_t* telnet) const;
  };
  std::unique_ptr<telnet_t, Free> telnet_;
  std::string replies_;
  Receiver* receiver_ = nullptr;  // during Receive()
  bool failed_ = false;
};

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TCP_TELNET_FILTER_H_
