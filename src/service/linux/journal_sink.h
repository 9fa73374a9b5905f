// The Linux host's sinks for trace lines and service events: the systemd journal, or syslog where
// there is no journal.
#pragma once

#include "base/logging.h"

namespace kesttcs {

// Sink writing each line to the journal at debug priority under the identifier "KestTCS", or to
// stderr when the journal refuses it (the host's choice when running as a service).
TraceSink JournalTraceSink();

// The host's event log: one journal entry with SYSLOG_IDENTIFIER=KestTCS, PRIORITY from the type
// (error LOG_ERR, warning LOG_WARNING, information LOG_INFO, success LOG_NOTICE), MESSAGE the
// strings joined by "; ", and the fields KESTTCS_EVENT_CODE and KESTTCS_EVENT_CATEGORY. Without a
// journal (no /run/systemd/journal/socket) one syslog(3) message under the ident "KestTCS". When
// the journal refuses the entry, "Could not report the event." goes to the trace sink.
EventSink SystemEventSink();

}  // namespace kesttcs
