#include "incident.h"

#include "log_time.h"

namespace report {

std::string WrittenText(const Incident& incident) {
  if (incident.written_ms) return IsoUtcText(*incident.written_ms);
  return incident.written_local ? IsoText(*incident.written_local) : "";
}

std::string StartedText(const Incident& incident) {
  if (!incident.started_local) return "";
  if (!incident.utc_offset_seconds) return IsoText(*incident.started_local);
  return IsoText(*incident.started_local - *incident.utc_offset_seconds) + "Z";
}

}  // namespace report
