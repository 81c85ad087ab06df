// The end of an incident: its file is made durable and closed, and the hang is reported to the
// platform's hang-event service as event 12.
#ifndef QUORVEL_LOG_INCIDENT_CLOSE_H_
#define QUORVEL_LOG_INCIDENT_CLOSE_H_

// Closes the incident log, if one is open, whatever else fails; then sends the hang event where the
// service has it switched on, and leaves a marker in the platform's trace. Monitor thread only.
void QuorvelEndLog();

#endif  // QUORVEL_LOG_INCIDENT_CLOSE_H_
