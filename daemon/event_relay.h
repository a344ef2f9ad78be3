// From message-queue records to the package's notification service.
#pragma once

// Callbacks of the listeners of kEventQueueKey and kLogQueueKey. Each turns the record at `message` (event_records.h; a
// NUL follows it) into one JSON request to the service kNotifyServiceName and waits for its answer, at most five
// seconds. A failed request is logged in one line and not repeated. Call each on one thread at a time.
//
//   notify_handler     any message                   "notify_event"
//   eventlog_handler   type 1, an event record       "notify_log"
//                      type 2, a connection record   "notify_conn"
//                      any other type                nothing
int notify_handler(void* message);
int eventlog_handler(void* message);
