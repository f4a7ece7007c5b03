#include "console/tcp/telnet_filter.h"

#include <string>

#include "gtest/gtest.h"

namespace cli::internal {
namespace {

// Telnet's bytes, for sequences that read like the protocol.
constexpr char kSe = '\xf0', kNop = '\xf1', kDm = '\xf2', kBrk = '\xf3', kIp = '\xf4', kAyt = '\xf6', kEc = '\xf7',
               kEl = '\xf8', kGa = '\xf9', kSb = '\xfa', kWill = '\xfb', kWont = '\xfc', kDo = '\xfd', kDont = '\xfe',
               kIac = '\xff';
constexpr char kEcho = 1, kSga = 3, kTtype = 24, kNaws = 31, kLineMode = 34, kCompress2 = 86;

template <typename... Chars>
std::string Bytes(Chars... bytes) {
  return {static_cast<char>(bytes)...};
}

// Writes down all that it receives, data as it is and events as <words>.
class Recorder : public TelnetFilter::Receiver {
 public:
  void OnData(std::string_view bytes) override { text += bytes; }
  void OnInterrupt() override { text += "<interrupt>"; }
  void OnAreYouThere() override { text += "<ayt>"; }
  void OnWindowSize(int columns, int rows) override {
    text += "<size " + std::to_string(columns) + "x" + std::to_string(rows) + ">";
  }
  void OnTerminalType(const std::string& name) override { text += "<type " + name + ">"; }
  void OnEcho(bool ours) override { text += ours ? "<echo>" : "<no echo>"; }
  void OnProtocolError(std::string_view why) override { text += "<error " + std::string(why) + ">"; }

  std::string text;
};

struct Outcome {
  std::string text;
  std::string replies;
};

Outcome Receive(const std::string& bytes, std::size_t split_at = 0, bool offer = true) {
  TelnetFilter filter;
  if (offer) filter.Offer();
  filter.TakeReplies();
  Recorder recorder;
  filter.Receive(bytes.substr(0, split_at), recorder);
  filter.Receive(bytes.substr(split_at), recorder);
  return {recorder.text, filter.TakeReplies()};
}

TEST(TelnetFilterTest, TheServerOffersEchoAndGoAheadAndAsksForSizeAndType) {
  TelnetFilter filter;
  filter.Offer();
  EXPECT_EQ(filter.TakeReplies(), Bytes(kIac, kWill, kEcho, kIac, kWill, kSga, kIac, kDo, kNaws, kIac, kDo, kTtype));
  EXPECT_EQ(filter.TakeReplies(), "");
}

TEST(TelnetFilterTest, DataPassesAsItIs) { EXPECT_EQ(Receive("show version\r\n").text, "show version\r\n"); }

TEST(TelnetFilterTest, NulBytesOfLineEndsAreKept) {
  EXPECT_EQ(Receive(std::string("a\r\0b", 4)).text, std::string("a\r\0b", 4));
}

TEST(TelnetFilterTest, ADoubledIacIsOneDataByte) {
  EXPECT_EQ(Receive("a" + Bytes(kIac, kIac) + "b").text,
            "a\xff"
            "b");
}

TEST(TelnetFilterTest, BytesBehindNopAytAndInterruptAreKept) {
  EXPECT_EQ(Receive("a" + Bytes(kIac, kNop) + "b").text, "ab");
  EXPECT_EQ(Receive("a" + Bytes(kIac, kAyt) + "b").text, "a<ayt>b");
  EXPECT_EQ(Receive("a" + Bytes(kIac, kIp) + "b").text, "a<interrupt>b");
  EXPECT_EQ(Receive("a" + Bytes(kIac, kBrk) + "b").text, "a<interrupt>b");
  EXPECT_EQ(Receive("a" + Bytes(kIac, kGa, kIac, kDm) + "b").text, "ab");
}

TEST(TelnetFilterTest, EraseCommandsBecomeTheKeysThatEdit) {
  EXPECT_EQ(Receive("a" + Bytes(kIac, kEc) + "b" + Bytes(kIac, kEl)).text,
            "a\x7f"
            "b\x15");
}

TEST(TelnetFilterTest, EchoIsOursWhenTheClientAgrees) {
  EXPECT_EQ(Receive(Bytes(kIac, kDo, kEcho)).text, "<echo>");
  EXPECT_EQ(Receive(Bytes(kIac, kDont, kEcho)).text, "");
  EXPECT_EQ(Receive(Bytes(kIac, kDo, kEcho, kIac, kDont, kEcho)).text, "<echo><no echo>");
}

TEST(TelnetFilterTest, AgreementIsNotAnsweredAgain) {
  EXPECT_EQ(Receive(Bytes(kIac, kDo, kEcho, kIac, kDo, kSga, kIac, kWill, kNaws)).replies, "");
}

TEST(TelnetFilterTest, LineModeIsRefused) {
  EXPECT_EQ(Receive(Bytes(kIac, kWill, kLineMode)).replies, Bytes(kIac, kDont, kLineMode));
  EXPECT_EQ(Receive(Bytes(kIac, kDo, kLineMode)).replies, Bytes(kIac, kWont, kLineMode));
}

TEST(TelnetFilterTest, WindowSizeIsTwoNumbersWithDoubledIacs) {
  EXPECT_EQ(Receive(Bytes(kIac, kSb, kNaws, 0, 132, 0, 43, kIac, kSe)).text, "<size 132x43>");
  EXPECT_EQ(Receive(Bytes(kIac, kSb, kNaws, 0, kIac, kIac, 1, 0, kIac, kSe)).text, "<size 255x256>");
}

TEST(TelnetFilterTest, AWindowSizeOfAWrongLengthIsIgnored) {
  EXPECT_EQ(Receive(Bytes(kIac, kSb, kNaws, 0, 132, 0, kIac, kSe) + "x").text, "x");
  EXPECT_EQ(Receive(Bytes(kIac, kSb, kNaws, kIac, kSe) + "x").text, "x");
}

TEST(TelnetFilterTest, TheTerminalTypeIsAskedForAndTaken) {
  EXPECT_EQ(Receive(Bytes(kIac, kWill, kTtype)).replies, Bytes(kIac, kSb, kTtype, 1, kIac, kSe));
  EXPECT_EQ(Receive(Bytes(kIac, kSb, kTtype, 0) + "xterm" + Bytes(kIac, kSe)).text, "<type xterm>");
}

TEST(TelnetFilterTest, EchoCanBeTakenBack) {
  TelnetFilter filter;
  Recorder recorder;
  filter.Offer();
  filter.Receive(Bytes(kIac, kDo, kEcho, kIac, kDo, kSga), recorder);
  filter.TakeReplies();
  filter.StopEcho();
  EXPECT_EQ(filter.TakeReplies(), Bytes(kIac, kWont, kEcho, kIac, kWont, kSga));
}

TEST(TelnetFilterTest, AnEndlessSubnegotiationIsAnErrorAndNeverBecomesData) {
  const std::string bytes = Bytes(kIac, kSb, kTtype, 0) + std::string(1 << 20, 'x');
  EXPECT_EQ(Receive(bytes).text.substr(0, 200), "<error subnegotiation too long>");
}

TEST(TelnetFilterTest, CompressionThatWasNotOfferedIsAnError) {
  EXPECT_EQ(Receive(Bytes(kIac, kSb, kCompress2, kIac, kSe) + "x").text, "<error compression was not offered>");
}

TEST(TelnetFilterTest, NothingIsTakenAfterAnError) {
  TelnetFilter filter;
  Recorder recorder;
  filter.Receive(Bytes(kIac, kSb, kCompress2, kIac, kSe), recorder);
  recorder.text.clear();
  filter.Receive("exit\r\n", recorder);
  EXPECT_EQ(recorder.text, "");
}

TEST(TelnetFilterTest, TheResultIsTheSameWhereverTheInputIsSplit) {
  const std::string bytes = "show" + Bytes(kIac, kDo, kEcho) + " ver" + Bytes(kIac, kNop) + "sion" + Bytes(kIac, kIac) +
                            Bytes(kIac, kSb, kNaws, 0, 80, 0, 24, kIac, kSe) + "x" + Bytes(kIac, kAyt, kIac, kIp) +
                            Bytes(kIac, kWill, kTtype, kIac, kSb, kTtype, 0) + "vt100" + Bytes(kIac, kSe) + "\r\n" +
                            Bytes(kIac, kWill, kLineMode) + "end";
  const Outcome whole = Receive(bytes);
  EXPECT_EQ(whole.text, "show<echo> version\xff<size 80x24>x<ayt><interrupt><type vt100>\r\nend");
  for (std::size_t at = 1; at < bytes.size(); ++at) {
    const Outcome split = Receive(bytes, at);
    EXPECT_EQ(split.text, whole.text) << "split at " << at;
    EXPECT_EQ(split.replies, whole.replies) << "split at " << at;
  }
}

TEST(TelnetFilterTest, NoiseNeitherCrashesNorGrows) {
  std::uint32_t state = 1;
  TelnetFilter filter;
  Recorder recorder;
  for (int round = 0; round < 200; ++round) {
    std::string noise;
    for (int i = 0; i < 1000; ++i) {
      state = state * 1664525 + 1013904223;
      noise += state >> 30 == 0 ? kIac : static_cast<char>(state >> 24);
    }
    filter.Receive(noise, recorder);
    EXPECT_LE(filter.TakeReplies().size(), 3 * noise.size());
    recorder.text.clear();
  }
}

}  // namespace
}  // namespace cli::internal
