// Where the device's daemons keep their log configuration and log files, and how log files are rotated.
#ifndef CORE_LOG_CONF_H_
#define CORE_LOG_CONF_H_

#include <cstdint>
#include <string>

namespace core {

// Constants, one definition in the whole program, initialised before main().
struct LogConf {
  inline static const std::string log_dir = "/userdata/log/";

  inline static const std::string log_syncd_ = "/usr/kelo/etc/logconf/log_syncd.conf";
  inline static const std::string log_file_syncd_ = log_dir + "syncd/syncd.log";
  inline static const std::string log_osd_ = "/usr/kelo/etc/logconf/log_osd.conf";
  inline static const std::string log_file_osd_ = log_dir + "osd/osd.log";
  inline static const std::string log_encd_ = "/usr/kelo/etc/logconf/log_encd.conf";
  inline static const std::string log_file_encd_ = log_dir + "encd/encd.log";
  inline static const std::string log_playd_ = "/usr/kelo/etc/logconf/log_playd.conf";
  inline static const std::string log_file_playd_ = log_dir + "playd/playd.log";

  // Files kept of one log, the live one included, and the size of each in KiB.
  static constexpr int32_t log_default_max_log_file = 5;
  static constexpr int32_t log_default_max_file_size_kb = 51200;
};

}  // namespace core

#endif  // CORE_LOG_CONF_H_
