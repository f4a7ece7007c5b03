#include <google/protobuf/any.pb.h>
#include <gtest/gtest.h>

#include "core/log_conf.h"
#include "core/rpc_url.h"

namespace core {
namespace {

using namespace core::LogConf;

TEST(LogConfTest, NamesTheDaemonsLogFilesAndConfigurations) {
  EXPECT_EQ(log_dir, "/userdata/log/");
  EXPECT_EQ(log_syncd_, "/usr/kelo/etc/logconf/log_syncd.conf");
  EXPECT_EQ(log_file_syncd_, "/userdata/log/syncd/syncd.log");
  EXPECT_EQ(log_osd_, "/usr/kelo/etc/logconf/log_osd.conf");
  EXPECT_EQ(log_file_osd_, "/userdata/log/osd/osd.log");
  EXPECT_EQ(log_encd_, "/usr/kelo/etc/logconf/log_encd.conf");
  EXPECT_EQ(log_file_encd_, "/userdata/log/encd/encd.log");
  EXPECT_EQ(log_playd_, "/usr/kelo/etc/logconf/log_playd.conf");
  EXPECT_EQ(log_file_playd_, "/userdata/log/playd/playd.log");
}

TEST(LogConfTest, KeepsFiveFilesOfFiftyMebibytes) {
  EXPECT_EQ(log_default_max_log_file, 5);
  EXPECT_EQ(log_default_max_file_size_kb, 51200);
}

TEST(RpcUrlTest, NamesTheDaemonsAddresses) {
  EXPECT_EQ(RpcUnixSocketUrl::rpc_url_encd_, "unix-abstract:encd@default");
  EXPECT_EQ(RpcUnixSocketUrl::rpc_url_playd_, "unix-abstract:playd@default");
  EXPECT_EQ(RpcUnixSocketUrl::rpc_url_syncd_, "unix-abstract:syncd@systembus");
  EXPECT_EQ(RpcUnixSocketUrl::rpc_url_osd_, "unix-abstract:osd@default");
  EXPECT_EQ(RpcUnixSocketUrl::rpc_url_example_, "unix-abstract:example@default");
}

TEST(RpcUrlTest, TypeUrlPrefixIsTheOneThatPackingUses) {
  google::protobuf::Any packed;
  packed.PackFrom(google::protobuf::Any());
  EXPECT_EQ(packed.type_url(), RpcConstants::rpc_type_url_prefix_ + "/google.protobuf.Any");
}

}  // namespace
}  // namespace core
