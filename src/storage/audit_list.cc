#include "storage/audit_list.h"

#include <algorithm>
#include <new>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"

namespace kesttcs {
namespace {

struct AuditList {
  Mutex mu;  // the audit mutex, a leaf
  std::vector<UINT32> ordinals GUARDED_BY(mu);
};

AuditList& List() {
  static AuditList list;
  return list;
}

}  // namespace

bool audit_isAudited(UINT32 ordinal) {
  AuditList& list = List();
  MutexLock lock(list.mu);
  return std::find(list.ordinals.begin(), list.ordinals.end(), ordinal) != list.ordinals.end();
}

TSS_RESULT audit_add(UINT32 ordinal) {
  AuditList& list = List();
  MutexLock lock(list.mu);
  if (std::find(list.ordinals.begin(), list.ordinals.end(), ordinal) != list.ordinals.end()) {
    return TSS_SUCCESS;
  }
  try {
    list.ordinals.push_back(ordinal);
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  return TSS_SUCCESS;
}

void audit_remove(UINT32 ordinal) {
  AuditList& list = List();
  MutexLock lock(list.mu);
  std::erase(list.ordinals, ordinal);
}

void audit_clear() {
  AuditList& list = List();
  MutexLock lock(list.mu);
  list.ordinals.clear();
}

std::vector<UINT32> audit_ordinals() {
  AuditList& list = List();
  MutexLock lock(list.mu);
  return list.ordinals;
}

}  // namespace kesttcs
