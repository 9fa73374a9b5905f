#include "storage/event_log.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"

namespace kesttcs {
namespace {

// An outside event source as the log knows it: the name it is opened with, its functions (null:
// no source is installed) and the PCRs it serves (bit n for PCR n).
struct SourceBinding {
  const char* name;
  const EventSource* functions;
  UINT32 pcrMask;
};

struct EventLog {
  Mutex mu;  // the log mutex; only the context memory's mutex is taken while it is held
  // One list per PCR. A deque keeps its elements in place while others are appended, so a record
  // found under the mutex can be copied after it is released.
  std::vector<std::deque<LoggedEvent>> lists GUARDED_BY(mu);
  EventAppended appended GUARDED_BY(mu);
  // Both sources are named but neither is installed, and nothing sets their masks.
  const SourceBinding firmware{kFirmwareEventSourceName, nullptr, 0};
  const SourceBinding measurement{kMeasurementEventSourceName, nullptr, 0};
};

// Created by event_log_init and destroyed by event_log_final; calls run between the two.
std::unique_ptr<EventLog> g_log;

// The source that serves `pcr`, or null when the log does.
const SourceBinding* SourceFor(const EventLog& log, UINT32 pcr) {
  if (pcr >= 32) return nullptr;
  if ((log.firmware.pcrMask >> pcr) & 1) return &log.firmware;
  if ((log.measurement.pcrMask >> pcr) & 1) return &log.measurement;
  return nullptr;
}

// Opens `source`, runs `ask` with its handle and closes it again; TCS_E_INTERNAL_ERROR when no
// source is installed or any step fails.
template <typename Ask>
TSS_RESULT AskSource(const SourceBinding& source, Ask ask) {
  const EventSource* f = source.functions;
  if (f == nullptr) return TCS_E_INTERNAL_ERROR;
  int handle = 0;
  if (f->open(source.name, &handle) != TSS_SUCCESS) return TCS_E_INTERNAL_ERROR;
  const TSS_RESULT asked = ask(*f, handle);
  const TSS_RESULT closed = f->close(handle);
  return asked == TSS_SUCCESS && closed == TSS_SUCCESS ? TSS_SUCCESS : TCS_E_INTERNAL_ERROR;
}

bool HasEventData(UINT32 length) { return static_cast<int32_t>(length) > 0; }

// Context memory handed out for one answer; released again unless the answer is complete.
class Handout {
 public:
  explicit Handout(TCS_CONTEXT_HANDLE hContext) : hContext_(hContext) {}
  ~Handout() {
    for (auto it = blocks_.rbegin(); it != blocks_.rend(); ++it) {
      static_cast<void>(ctx_ReleaseMemory(hContext_, *it));
    }
  }
  Handout(const Handout&) = delete;
  Handout& operator=(const Handout&) = delete;

  void* Allocate(size_t size) {
    void* block = getSomeMemory(hContext_, static_cast<UINT32>(size));
    if (block != nullptr) blocks_.push_back(block);
    return block;
  }
  // The C form of `e` into *c, its data in fresh blocks. False when memory runs out.
  bool Fill(const LoggedEvent& e, TSS_PCR_EVENT* c) {
    *c = TSS_PCR_EVENT{};
    c->versionInfo = e.versionInfo;
    c->ulPcrIndex = e.ulPcrIndex;
    c->eventType = e.eventType;
    c->ulPcrValueLength = e.ulPcrValueLength;
    c->ulEventLength = e.ulEventLength;
    if (e.ulPcrValueLength != 0) {
      c->rgbPcrValue = static_cast<BYTE*>(Allocate(e.pcrValue.size()));
      if (c->rgbPcrValue == nullptr) return false;
      std::memcpy(c->rgbPcrValue, e.pcrValue.data(), e.pcrValue.size());
    }
    if (HasEventData(e.ulEventLength)) {
      c->rgbEvent = static_cast<BYTE*>(Allocate(e.event.size()));
      if (c->rgbEvent == nullptr) return false;
      std::memcpy(c->rgbEvent, e.event.data(), e.event.size());
    }
    return true;
  }
  // Keeps every block: they now belong to the client.
  void Keep() { blocks_.clear(); }

 private:
  TCS_CONTEXT_HANDLE hContext_;
  std::vector<void*> blocks_;
};

// Copies `events` into one fresh array in hContext's memory: *array, or TCS_E_OUTOFMEMORY.
TSS_RESULT HandOutArray(TCS_CONTEXT_HANDLE hContext, std::span<const LoggedEvent* const> events,
                        TSS_PCR_EVENT** array) {
  Handout handout(hContext);
  auto* c = static_cast<TSS_PCR_EVENT*>(handout.Allocate(events.size() * sizeof(TSS_PCR_EVENT)));
  if (c == nullptr) return TCS_E_OUTOFMEMORY;
  size_t i = 0;
  for (const LoggedEvent* e : events) {
    if (!handout.Fill(*e, &c[i++])) return TCS_E_OUTOFMEMORY;
  }
  handout.Keep();
  *array = c;
  return TSS_SUCCESS;
}

TSS_RESULT HandOutOne(TCS_CONTEXT_HANDLE hContext, const LoggedEvent& e, TSS_PCR_EVENT** event) {
  const LoggedEvent* one[] = {&e};
  return HandOutArray(hContext, one, event);
}

// The validation every operation starts with, and the log's existence.
TSS_RESULT Enter(TCS_CONTEXT_HANDLE hContext) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext); r != TSS_SUCCESS) return r;
  return g_log == nullptr ? TCS_E_INTERNAL_ERROR : TSS_SUCCESS;
}

}  // namespace

TSS_RESULT CopyEvent(const TSS_PCR_EVENT& e, LoggedEvent* copy) {
  if ((e.ulPcrValueLength != 0 && e.rgbPcrValue == nullptr) ||
      (HasEventData(e.ulEventLength) && e.rgbEvent == nullptr)) {
    return TCS_E_BAD_PARAMETER;
  }
  try {
    LoggedEvent c;
    c.versionInfo = e.versionInfo;
    c.ulPcrIndex = e.ulPcrIndex;
    c.eventType = e.eventType;
    c.ulPcrValueLength = e.ulPcrValueLength;
    if (e.ulPcrValueLength != 0)
      c.pcrValue.assign(e.rgbPcrValue, e.rgbPcrValue + e.ulPcrValueLength);
    c.ulEventLength = e.ulEventLength;
    if (HasEventData(e.ulEventLength)) c.event.assign(e.rgbEvent, e.rgbEvent + e.ulEventLength);
    *copy = std::move(c);
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  return TSS_SUCCESS;
}

TSS_RESULT event_log_init(UINT32 pcrCount) {
  if (g_log != nullptr) return TSS_SUCCESS;
  std::unique_ptr<EventLog> log(new (std::nothrow) EventLog);
  if (log == nullptr) return TCS_E_OUTOFMEMORY;
  try {
    MutexLock lock(log->mu);
    log->lists.resize(pcrCount);
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  g_log = std::move(log);
  return TSS_SUCCESS;
}

TSS_RESULT event_log_final() {
  g_log.reset();
  return TSS_SUCCESS;
}

void event_log_set_append_hook(EventAppended hook) {
  if (g_log == nullptr) return;
  MutexLock lock(g_log->mu);
  g_log->appended = std::move(hook);
}

TSS_RESULT event_log_restore(std::span<const LoggedEvent> events) {
  if (g_log == nullptr) return TCS_E_INTERNAL_ERROR;
  MutexLock lock(g_log->mu);
  for (const LoggedEvent& e : events) {
    if (e.ulPcrIndex >= g_log->lists.size()) return TCS_E_BAD_PARAMETER;
  }
  for (const LoggedEvent& e : events) g_log->lists[e.ulPcrIndex].push_back(e);
  return TSS_SUCCESS;
}

TSS_RESULT Tcsi_LogPcrEvent_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_PCR_EVENT& Event,
                                     UINT32* pNumber) {
  if (TSS_RESULT r = Enter(hContext); r != TSS_SUCCESS) return r;
  if (pNumber == nullptr) return TCS_E_BAD_PARAMETER;
  // The copy is made before the mutex is taken: only the append runs under it.
  LoggedEvent copy;
  if (TSS_RESULT r = CopyEvent(Event, &copy); r != TSS_SUCCESS) return r;
  MutexLock lock(g_log->mu);
  if (Event.ulPcrIndex >= g_log->lists.size()) return TCS_E_BAD_PARAMETER;
  if (SourceFor(*g_log, Event.ulPcrIndex) != nullptr) return TCS_E_FAIL;
  std::deque<LoggedEvent>& list = g_log->lists[Event.ulPcrIndex];
  try {
    list.push_back(std::move(copy));
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  if (g_log->appended) g_log->appended(list.back());
  *pNumber = static_cast<UINT32>(list.size());
  return TSS_SUCCESS;
}

TSS_RESULT Tcsi_GetPcrEvent_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 PcrIndex, UINT32* pNumber,
                                     TSS_PCR_EVENT** ppEvent) {
  if (TSS_RESULT r = Enter(hContext); r != TSS_SUCCESS) return r;
  if (pNumber == nullptr) return TCS_E_BAD_PARAMETER;
  const LoggedEvent* found = nullptr;
  {
    MutexLock lock(g_log->mu);
    if (PcrIndex >= g_log->lists.size()) return TCS_E_BAD_PARAMETER;
    if (const SourceBinding* source = SourceFor(*g_log, PcrIndex)) {
      LoggedEvent asked;
      const TSS_RESULT r = AskSource(*source, [&](const EventSource& f, int handle) {
        return f.getEvent(handle, PcrIndex, pNumber, ppEvent == nullptr ? nullptr : &asked);
      });
      if (r != TSS_SUCCESS || ppEvent == nullptr) return r;
      return HandOutOne(hContext, asked, ppEvent);
    }
    const std::deque<LoggedEvent>& list = g_log->lists[PcrIndex];
    if (ppEvent == nullptr) {
      *pNumber = static_cast<UINT32>(list.size());
      return TSS_SUCCESS;
    }
    if (*pNumber >= list.size()) return TCS_E_BAD_PARAMETER;
    found = &list[*pNumber];
  }
  return HandOutOne(hContext, *found, ppEvent);
}

TSS_RESULT Tcsi_GetPcrEventsByPcr_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 PcrIndex,
                                           UINT32 FirstEvent, UINT32* pEventCount,
                                           TSS_PCR_EVENT** ppEvents) {
  if (TSS_RESULT r = Enter(hContext); r != TSS_SUCCESS) return r;
  if (pEventCount == nullptr || ppEvents == nullptr) return TCS_E_BAD_PARAMETER;
  MutexLock lock(g_log->mu);
  if (PcrIndex >= g_log->lists.size()) return TCS_E_BAD_PARAMETER;
  std::vector<const LoggedEvent*> selected;
  std::vector<LoggedEvent> asked;
  if (const SourceBinding* source = SourceFor(*g_log, PcrIndex)) {
    const TSS_RESULT r = AskSource(*source, [&](const EventSource& f, int handle) {
      return f.getEventsByPcr(handle, PcrIndex, FirstEvent, pEventCount, &asked);
    });
    if (r != TSS_SUCCESS) return r;
    for (const LoggedEvent& e : asked) selected.push_back(&e);
  } else {
    const std::deque<LoggedEvent>& list = g_log->lists[PcrIndex];
    const size_t end = std::min<size_t>(list.size(), *pEventCount);
    if (FirstEvent > end) return TCS_E_BAD_PARAMETER;
    for (size_t i = FirstEvent; i < end; ++i) selected.push_back(&list[i]);
  }
  *pEventCount = static_cast<UINT32>(selected.size());
  *ppEvents = nullptr;
  if (selected.empty()) return TSS_SUCCESS;
  const TSS_RESULT r = HandOutArray(hContext, selected, ppEvents);
  if (r != TSS_SUCCESS) *pEventCount = 0;
  return r;
}

TSS_RESULT Tcsi_GetPcrEventLog_Internal(TCS_CONTEXT_HANDLE hContext, UINT32* pEventCount,
                                        TSS_PCR_EVENT** ppEvents) {
  if (TSS_RESULT r = Enter(hContext); r != TSS_SUCCESS) return r;
  if (pEventCount == nullptr || ppEvents == nullptr) return TCS_E_BAD_PARAMETER;
  MutexLock lock(g_log->mu);
  std::vector<const LoggedEvent*> all;
  for (const std::deque<LoggedEvent>& list : g_log->lists) {
    for (const LoggedEvent& e : list) all.push_back(&e);
  }
  *pEventCount = 0;
  *ppEvents = nullptr;
  if (all.empty()) return TSS_SUCCESS;
  const TSS_RESULT r = HandOutArray(hContext, all, ppEvents);
  if (r == TSS_SUCCESS) *pEventCount = static_cast<UINT32>(all.size());
  return r;
}

}  // namespace kesttcs
