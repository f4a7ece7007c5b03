// The menu "playd": drives the player daemon.
#ifndef EXAMPLE_APISDK_PLAYD_PLAYD_CIL_H_
#define EXAMPLE_APISDK_PLAYD_PLAYD_CIL_H_

#include <string>

#include "cli/plugin.h"

inline const std::string kPlaydCliName = "playd";

// The player API must have been loaded before one of its commands runs. A word that is not a number leaves its command
// as std::invalid_argument or std::out_of_range, before anything is sent.
class PlaydCli : public cli::RegisteredPlugin<PlaydCli, &kPlaydCliName> {
 public:
  explicit PlaydCli(cli::Menu* parent);

  // Each inserts the command that it names into the menu; a null menu is logged, and the command is then missing.
  static void CreatLiveSystemInitAction(cli::Menu* pMenu);
  static void CreatLiveSystemUnInitAction(cli::Menu* pMenu);
  static void CreatSetIntputTimingAction(cli::Menu* pMenu);
  static void CreatSetOutputTimingAction(cli::Menu* pMenu);
  static void CreatCreateUplayerAction(cli::Menu* pMenu);
  static void CreatDeleteUplayerAction(cli::Menu* pMenu);
  static void CreatOpenMediaOfUplayerAction(cli::Menu* pMenu);
  static void CreatCloseMediaOfUplayerAction(cli::Menu* pMenu);
  static void CreatSwitchSourceOfUplayerAction(cli::Menu* pMenu);
  static void CreatGetMediaInfoOfUplayerAction(cli::Menu* pMenu);
  static void CreatGetSeekOfUplayerAction(cli::Menu* pMenu);
  static void CreatSetPauseOfUplayerAction(cli::Menu* pMenu);
  static void CreatSetSeekOfUplayerAction(cli::Menu* pMenu);
  static void CreatSetSpeedOfUplayerAction(cli::Menu* pMenu);
  static void CreatSetVolumeOfUplayerAction(cli::Menu* pMenu);

 private:
  cli::CmdHandler menu_;
};

#endif  // EXAMPLE_APISDK_PLAYD_PLAYD_CIL_H_
