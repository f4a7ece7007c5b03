#include "example/apisdk/encd/encd_cil.h"

#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "apisdk/apisdk.h"
#include "cli/command.h"
#include "cli/outcome.h"
#include "example/apisdk/report.h"
#include "example/completed_command.h"
#include "klbase/log.h"

namespace {

// A word that names no quality means the same as "low".
apis::ApiEncoder::Qulity QualityOf(const std::string& word) {
  if (word == "middle") return apis::ApiEncoder::kMiddle;
  if (word == "high") return apis::ApiEncoder::kHigh;
  return apis::ApiEncoder::kLow;
}

void SetQuality(std::ostream& out, const std::string& word) {
  apis::ApiStatus status;
  apis::ApiSdk::instance_.Encoder()->SetVideoQuality(QualityOf(word), status);
  out << "code= " << status.code << " result=" << status.message << std::endl;
  cli::ReportField(out, "code", std::to_string(status.code));
  cli::ReportField(out, "result", status.message);
  ReportLastCall(out, "encd");
}

constexpr char kQualityWords[] = "qulity<low middle high>";

const ParameterHelps& QualityWords() {
  static const auto* const helps = new ParameterHelps{{kQualityWords,
                                                       {[](const std::string& typed) {
                                                          return CompleteWord({"low", "middle", "high"}, typed);
                                                        },
                                                        ""}}};
  return *helps;
}

}  // namespace

EncdCli::EncdCli(cli::Menu* parent) : RegisteredPlugin(kEncdCliName) {
  KL_LOG(30, "install rpc cli\n");
  auto menu = std::make_unique<cli::Menu>(kEncdCliName);
  menu->Insert(WithCompletion(
      cli::MakeCommand("SetQulity", &SetQuality, "send a proto message", {kQualityWords}, "high"), QualityWords()));
  menu_ = parent->Insert(std::move(menu));
}
