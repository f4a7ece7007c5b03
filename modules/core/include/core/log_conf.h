// Where the device's daemons keep their log configuration and log files, and how log files are rotated.
#ifndef CORE_LOG_CONF_H_
#define CORE_LOG_CONF_H_

#include <cstdint>
#include <string>

// Constants, one definition in the whole program, initialised before main().
namespace core::LogConf {

inline const std::string log_dir = "/userdata/log/";

inline const std::string log_syncd_ = "/usr/kelo/etc/logconf/log_syncd.conf";
inline const std::string log_file_syncd_ = log_dir + "syncd/syncd.log";
inline const std::string log_osd_ = "/usr/kelo/etc/logconf/log_osd.conf";
inline const std::string log_file_osd_ = log_dir + "osd/osd.log";
inline const std::string log_encd_ = "/usr/kelo/etc/logconf/log_encd.conf";
inline const std::string log_file_encd_ = log_dir + "encd/encd.log";
inline const std::string log_playd_ = "/usr/kelo/etc/logconf/log_playd.conf";
inline const std::string log_file_playd_ = log_dir + "playd/playd.log";

// Files kept of one log, the live one included, and the size of each in KiB.
inline constexpr int32_t log_default_max_log_file = 5;
inline constexpr int32_t log_default_max_file_size_kb = 51200;

}  // namespace core::LogConf

#endif  // CORE_LOG_CONF_H_
