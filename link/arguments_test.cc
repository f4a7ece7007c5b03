#include "link/arguments.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace vexlink {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Arguments Read(const std::vector<std::string>& words) {
  return ReadArguments(words, [](const char*) { return std::string(); });
}
std::string ErrorOf(const std::vector<std::string>& words) { return Read(words).error; }

TEST(ArgumentsTest, HasDefaults) {
  const Arguments arguments = Read({"--node", "n"});
  EXPECT_EQ(arguments.error, "");
  EXPECT_THAT(arguments.cluster.servers, ElementsAre("nats://127.0.0.1:4222"));
  EXPECT_FALSE(arguments.cluster.secure);
  EXPECT_TRUE(arguments.cluster.runs);
  EXPECT_THAT(arguments.events, IsEmpty());
  EXPECT_EQ(arguments.buffer, 65536u);
}

TEST(ArgumentsTest, ValuesStandBehindTheirOptionOrItsEqualsSign) {
  const Arguments arguments = Read({"--server=nats://a:1", "--server", "b", "--node=n", "--socket", "/s=t",
                                    "--events=layer/*", "--events", "seek_ms>=5", "--buffer", "7", "--no-run"});
  EXPECT_EQ(arguments.error, "");
  EXPECT_THAT(arguments.cluster.servers, ElementsAre("nats://a:1", "nats://b"));
  EXPECT_EQ(arguments.cluster.node, "n");
  EXPECT_EQ(arguments.socket, "/s=t");
  EXPECT_THAT(arguments.events, ElementsAre("layer/*", "seek_ms>=5"));
  EXPECT_EQ(arguments.buffer, 7u);
  EXPECT_FALSE(arguments.cluster.runs);
}

TEST(ArgumentsTest, TlsIsAskedForByAUrlACertificateOrAnAuthority) {
  EXPECT_TRUE(Read({"--node=n", "--server=nats://a", "--server=tls://b"}).cluster.secure);
  EXPECT_TRUE(Read({"--node=n", "--ca=f"}).cluster.secure);
  EXPECT_TRUE(Read({"--node=n", "--cert=f", "--key=g"}).cluster.secure);
  EXPECT_FALSE(Read({"--node=n", "--creds=f"}).cluster.secure);
}

TEST(ArgumentsTest, ServersHaveAHostAndPerhapsAUserAndAPort) {
  for (const char* url : {"nats://a", "tls://a:1", "nats://u:p@a:65535", "nats://[::1]", "nats://[::1]:4222", "t@a"}) {
    EXPECT_EQ(ErrorOf({"--node=n", "--server", url}), "") << url;
  }
}

TEST(ArgumentsTest, SecretsComeFromTheEnvironment) {
  const Arguments arguments = ReadArguments({"--node=n"}, [](const char* name) { return std::string(name) + "!"; });
  EXPECT_EQ(arguments.cluster.user, "VEXLINK_USER!");
  EXPECT_EQ(arguments.cluster.password, "VEXLINK_PASSWORD!");
  EXPECT_EQ(arguments.cluster.token, "VEXLINK_TOKEN!");
}

TEST(ArgumentsTest, WhatMakesNoSenseIsExplained) {
  EXPECT_EQ(ErrorOf({"--nonsense"}), "unknown word \"--nonsense\"");
  EXPECT_EQ(ErrorOf({"--nodes", "n"}), "unknown word \"--nodes\"");
  EXPECT_EQ(ErrorOf({"--node"}), "--node needs a value");
  EXPECT_EQ(ErrorOf({"--ca="}), "--ca needs a value");
  EXPECT_THAT(ErrorOf({"--node", "a.b"}), HasSubstr("\"a.b\" can't be a node's name"));
  EXPECT_THAT(ErrorOf({"--node", "all"}), HasSubstr("\"all\" can't be a node's name"));
  for (const char* url :
       {"http://a", "tls://", "nats://a:", "nats://a:port", "nats://a:65536", "nats://:4222", "a:1:2", "u:p@"}) {
    EXPECT_THAT(ErrorOf({"--server", url}), HasSubstr("--server takes nats://HOST:PORT")) << url;
  }
  EXPECT_THAT(ErrorOf({"--server", "u:secret@a:port"}), HasSubstr("not \"nats://a:port\""));
  for (const char* buffer : {"0", "-1", "1048577", "1e3", "x"}) {
    EXPECT_THAT(ErrorOf({"--buffer", buffer}), HasSubstr("--buffer takes")) << buffer;
  }
  EXPECT_EQ(ErrorOf({"--node=n", "--cert=f"}), "--cert and --key go together");
  EXPECT_EQ(ErrorOf({"--node=n", "--key=f"}), "--cert and --key go together");
}

TEST(ArgumentsTest, HelpAndVersionNeedNoSense) {
  EXPECT_EQ(Read({"--help", "--nonsense"}).form, Arguments::Form::kHelp);
  EXPECT_EQ(Read({"--version"}).form, Arguments::Form::kVersion);
}

}  // namespace
}  // namespace vexlink
