#include "console/tcp/access/admission.h"

#include <fcntl.h>

#include "console/commands/builtins.h"
#include "console/session/console_session.h"
#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/fake_connection.h"

namespace cli::internal {
namespace {

constexpr int kSlots = 2;

ConsoleOptions OptionsWith(const std::string& password_file) {
  ConsoleOptions options;
  options.max_sessions = kSlots;
  options.password_file = password_file;
  return options;
}

class AdmissionTest : public ::testing::Test {
 protected:
  explicit AdmissionTest(const std::string& password_file = "") : admission_(OptionsWith(password_file), &table_) {}

  Admission::Decision Decide() { return admission_.Decide(FakeConnection::In(open_)); }

  SessionTable table_{kSlots};
  ServedConnections open_;
  Admission admission_;
};

TEST_F(AdmissionTest, AConnectionGetsASlot) {
  const Admission::Decision decision = Decide();
  EXPECT_TRUE(decision.slot);
  EXPECT_EQ(decision.refusal, "");
}

TEST_F(AdmissionTest, WithoutAFreeSlotAConnectionIsRefusedWithARecord) {
  const auto first = Decide();
  const auto second = Decide();
  const LogCapture log(30);
  const auto third = Decide();
  EXPECT_FALSE(third.slot);
  EXPECT_EQ(third.refusal, "Too many sessions: all 2 are in use. Try again later.\n");
  EXPECT_EQ(log.Count("40 console connection from 192.0.2.1:4321 refused: all 2 sessions are in use"), 1U);
}

TEST_F(AdmissionTest, ASlotIsFreeAgainWhenItIsGivenUp) {
  const auto first = Decide();
  { const auto second = Decide(); }
  EXPECT_TRUE(Decide().slot);
}

TEST_F(AdmissionTest, AUserWhoMayNotUseTheConsoleIsRefusedWithARecord) {
  const auto stranger = FakeConnection::In(open_);
  stranger->user = 54321;
  const LogCapture log(30);
  const auto decision = admission_.Decide(stranger);
  EXPECT_FALSE(decision.slot);
  EXPECT_EQ(decision.refusal, "Refused: user 54321 may not use this console (KLBASE_CONSOLE_ALLOW).\n");
  stranger->user = std::nullopt;
  EXPECT_EQ(admission_.Decide(stranger).refusal, "Refused: your user is not known to this console.\n");
  EXPECT_EQ(log.Texts(),
            std::vector<std::string>{"40 console connection from 192.0.2.1:4321 refused: user 54321 may not use it\n"});
}

TEST_F(AdmissionTest, AnyUserMayAlsoBeUnknown) {
  ConsoleOptions options = OptionsWith("");
  options.allow = "any";
  Admission admission(options, &table_);
  const auto unknown = FakeConnection::In(open_);
  unknown->user = std::nullopt;
  EXPECT_TRUE(admission.Decide(unknown).slot);
}

class LoginAdmissionTest : public AdmissionTest {
 protected:
  LoginAdmissionTest() : AdmissionTest("/pw") {}

  std::shared_ptr<FakeConnection> Connect(const std::string& address = "192.0.2.1") {
    auto connection = FakeConnection::In(open_);
    connection->address = address;
    EXPECT_EQ(admission_.Decide(connection).refusal, "");
    return connection;
  }
  std::size_t Aborted() const { return connected_.size() - open_.size(); }
  void Fill(const std::string& address = "192.0.2.1") {
    for (std::size_t i = 0; i < Admission::kMaxOfAddress; ++i) connected_.push_back(Connect(address));
  }

  std::vector<std::shared_ptr<FakeConnection>> connected_;
};

TEST_F(LoginAdmissionTest, BeforeItsLoginAConnectionTakesNoSlot) {
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(Decide().slot);
  EXPECT_TRUE(table_.TakeSlot());
}

TEST_F(LoginAdmissionTest, TheOldestOfAnAddressLeavesForANewOneOfIt) {
  Fill();
  EXPECT_EQ(Aborted(), 0U);
  connected_.push_back(Connect());
  EXPECT_EQ(Aborted(), 1U);
  EXPECT_EQ(connected_[0]->aborted_for, "others wait to log in");
}

TEST_F(LoginAdmissionTest, NobodyLeavesForThoseThatHaveLoggedIn) {
  Fill();
  connected_[0]->logged_in = true;
  connected_.push_back(Connect());
  EXPECT_EQ(Aborted(), 0U);
  connected_.push_back(Connect());
  EXPECT_EQ(connected_[0]->aborted_for, "");
  EXPECT_EQ(connected_[1]->aborted_for, "others wait to log in");
}

TEST_F(LoginAdmissionTest, AnAddressPushesOutNoOther) {
  connected_.push_back(Connect("192.0.2.2"));
  for (int i = 0; i < 3; ++i) Fill();
  EXPECT_EQ(connected_[0]->aborted_for, "");
  EXPECT_EQ(open_.size(), 1 + Admission::kMaxOfAddress);
}

TEST_F(LoginAdmissionTest, WhenAllRoomIsTakenTheAddressWithTheMostOfItGives) {
  connected_.push_back(Connect("192.0.2.2"));
  Fill("192.0.2.3");
  while (open_.size() < Admission::kMaxLoggingIn) connected_.push_back(Connect("192.0.2.4"));
  connected_.push_back(Connect("192.0.2.5"));
  EXPECT_EQ(Aborted(), 1U);
  EXPECT_EQ(connected_[1]->aborted_for, "others wait to log in");
}

TEST_F(LoginAdmissionTest, AnOperatorWhoTypesStaysBeforeSilentClientsAndThoseThatMayBeGone) {
  Fill();
  connected_[0]->standing = Candidate::Standing::kHeard;
  connected_[3]->standing = Candidate::Standing::kEnded;
  for (int i = 0; i < 3; ++i) connected_.push_back(Connect());
  EXPECT_EQ(Aborted(), 3U);
  EXPECT_EQ(connected_[0]->aborted_for, "");
  for (const int i : {1, 2, 3})
    EXPECT_EQ(connected_[static_cast<std::size_t>(i)]->aborted_for, "others wait to log in");
}

TEST_F(LoginAdmissionTest, NobodyLeavesForThoseThatHaveGone) {
  Fill();
  open_.erase(connected_.back());
  connected_.pop_back();
  connected_.push_back(Connect());
  EXPECT_EQ(Aborted(), 0U);
}

// Sessions that have just logged in, with an output that the test reads.
class AdmitLoggedInTest : public LoginAdmissionTest {
 protected:
  AdmitLoggedInTest() {
    if (::pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe2");
    output_ = std::make_shared<OutputBuffer>(pipe_[1], OutputBuffer::Target::kFile, [] {});
  }
  ~AdmitLoggedInTest() override {
    output_->Close();
    for (const int fd : pipe_) ::close(fd);
  }

  std::shared_ptr<ConsoleSession> Session() {
    SessionConfig config;
    config.id = table_.NextId();
    config.root = std::make_shared<Menu>("main");
    config.builtins = MakeBuiltins("main");
    config.output = output_;
    auto session = std::make_shared<ConsoleSession>(std::move(config));
    table_.Add(session, SessionSlot());
    return session;
  }
  std::string Told() {
    output_->Flush();
    char buffer[1024];
    const ssize_t count = ::read(pipe_[0], buffer, sizeof buffer);
    return {buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
  }

  int pipe_[2];
  std::shared_ptr<OutputBuffer> output_;
};

TEST_F(AdmitLoggedInTest, ASessionHoldsItsSlotUntilItIsReaped) {
  const auto session = Session();
  EXPECT_TRUE(admission_.AdmitLoggedIn(session->Id(), *output_));
  const SessionSlot other = table_.TakeSlot();
  EXPECT_FALSE(table_.TakeSlot());
  session->Close();
  table_.Reap(session->Id());
  EXPECT_TRUE(table_.TakeSlot());
  EXPECT_EQ(Told(), "");
}

TEST_F(AdmitLoggedInTest, WithoutAFreeSlotTheOperatorIsToldSo) {
  const SessionSlot first = table_.TakeSlot();
  const SessionSlot second = table_.TakeSlot();
  const auto session = Session();
  EXPECT_FALSE(admission_.AdmitLoggedIn(session->Id(), *output_));
  EXPECT_EQ(Told(), "Too many sessions: all 2 are in use. Try again later.\n");
  session->Close();
  table_.Reap(session->Id());
}

}  // namespace
}  // namespace cli::internal
