// Shared by the tests of the daemon as a whole: the built program, driven through klrpc as the console drives it.
#ifndef DEVICE_ENCD_TESTING_DAEMON_FIXTURE_H_
#define DEVICE_ENCD_TESTING_DAEMON_FIXTURE_H_

#include <google/protobuf/any.pb.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "common/v1/status.pb.h"
#include "encoder/v1/encoder.pb.h"
#include "klrpc/api_client.h"
#include "platform/testing/child_process.h"
#include "platform/testing/environment.h"
#include "platform/testing/scratch_folder.h"
#include "platform/testing/sync.h"

namespace encd {

class DaemonTest : public ::testing::Test {
 protected:
  // Whatever a test had its daemon do, it stops in order afterwards.
  void TearDown() override {
    if (daemon_ && !daemon_->WaitExit(std::chrono::milliseconds(0))) ExpectStops(SIGTERM);
  }

  std::unique_ptr<vextest::ChildProcess> Launch(std::vector<std::string> flags,
                                                std::vector<std::string> environment = {}) {
    flags.insert(flags.begin(),
                 {ENCD_PROGRAM, "--address=" + address_, "--record_dir=" + dir_.Path(), "--width=320", "--height=180"});
    environment.push_back("KLBASE_LOG_FILE=" + (dir_ / "encd.log"));
    return std::make_unique<vextest::ChildProcess>(
        flags, vextest::ChildProcess::Options{environment, "", /*pty=*/false, /*errors_with_output=*/true});
  }

  void StartDaemon(const std::vector<std::string>& flags = {}) {
    daemon_ = Launch(flags);
    ASSERT_TRUE(daemon_->WaitFor("encd: listens on " + address_ + "\n")) << daemon_->Output();
    client_ =
        std::make_unique<klrpc::APIClient>(std::make_unique<klrpc::APIClientOptions>(address_, 1500, 200, 500, false));
  }

  template <typename Reply>
  Reply Call(const google::protobuf::Message& request) {
    google::protobuf::Any packed;
    Reply reply;
    EXPECT_TRUE(client_->Call(request, packed)) << request.GetTypeName();
    EXPECT_TRUE(packed.UnpackTo(&reply)) << packed.type_url();
    return reply;
  }

  // The reply as the console prints it.
  std::string Ask(const google::protobuf::Message& request) {
    const auto status = Call<common::v1::Status>(request);
    return std::to_string(status.code()) + " " + status.message();
  }

  std::string SetQuality(int quality) {
    encoder::v1::SetVideoQualityRequest request;
    request.set_qulity(static_cast<encoder::v1::Qulity>(quality));
    return Ask(request);
  }

  std::string StartRecord() {
    encoder::v1::StartStorageRecordRequest request;
    request.set_enable_audio(true);
    request.set_enable_video(true);
    request.set_format(encoder::v1::RECORD_MP4);
    return Ask(request);
  }

  std::string AddStream(const std::string& id, const std::string& url) {
    encoder::v1::AddStreamRequest request;
    request.mutable_live_platform()->set_unique_id(id);
    request.mutable_live_platform()->set_url(url);
    request.mutable_live_platform()->set_key("key");
    return Ask(request);
  }

  void ExpectStops(int signal, const vextest::ExitState& end = {0, 0}) {
    daemon_->Signal(signal);
    EXPECT_EQ(daemon_->WaitExit(std::chrono::milliseconds(6000)), end) << daemon_->Output();
  }

  // True once the file at the recording's place is longer than `bytes`.
  bool WaitRecorded(std::size_t bytes) {
    return vextest::WaitFor([&] {
      const auto files = dir_.Files(".mp4");
      return !files.empty() && vextest::ReadFile(files.front()).size() > bytes;
    });
  }

  vextest::ScratchFolder dir_;
  const std::string address_ = "unix-abstract:" + vextest::UniqueName("encd-test");
  std::unique_ptr<vextest::ChildProcess> daemon_;
  std::unique_ptr<klrpc::APIClient> client_;
};

}  // namespace encd

#endif  // DEVICE_ENCD_TESTING_DAEMON_FIXTURE_H_
