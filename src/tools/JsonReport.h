#pragma once
// What a program wants to know of a model: the same facts as the reports for people, in documents that schemas describe
// (docs/schemas/model-report.schema.json, docs/schemas/model-check.schema.json).

#include "engine/Inspection.h"
#include "tools/Check.h"
#include "tools/LayerTimes.h"
#include "tools/Report.h"

#include <optional>
#include <ostream>
#include <string>

namespace ulmora::tools {

/// Writes one document and a line feed. Cost and times are left out where there are none.
void WriteJsonReport(std::ostream& stream, const std::string& path, const engine::Inspection& model,
                     const std::optional<Cost>& cost, const std::optional<RunTimes>& times);

/// Writes one document and a line feed.
void WriteJsonCheck(std::ostream& stream, const std::string& path, const CheckResult& result);

}  // namespace ulmora::tools
