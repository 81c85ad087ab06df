// The end of an incident: its file is synced and closed, and the hang is reported to the platform's
// hang-event service as event 12.
#ifndef QUORVEL_LOG_INCIDENT_CLOSE_H_
#define QUORVEL_LOG_INCIDENT_CLOSE_H_

// Closes the incident log if one is open, whatever else fails. Then, if the service has the event
// switched on, leaves a marker in the platform's trace and sends the event. Monitor thread only.
void QuorvelEndLog();

#endif  // QUORVEL_LOG_INCIDENT_CLOSE_H_
