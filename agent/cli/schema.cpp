#include "agent/document/schema.h"
#include "agent/cli/commands.h"
#include "agent/cli/report.h"
#include "agent/output/output_schema.h"

namespace vnagent {

ExitStatus printSchema(const SchemaOptions& options) {
  std::string out;
  if (options.output) {
    out = kOutputSchema;
  } else {
    JsonWriter json(out, JsonWriter::Style::kIndented);
    writeCloudSchema(json);
    out += '\n';
  }
  printOut(out);
  return ExitStatus::kOk;
}

}  // namespace vnagent
