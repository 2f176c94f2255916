// The ACE module of the library: the process-wide masked-header table as an
// ACE singleton guarded by a recursive mutex. Loading ACE costs a process
// several megabytes and its object manager's start-up, so the library loads
// this module (and with it ACE) only when a wire trace first needs the table.
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include "client/qxclnt_masked_headers.h"

typedef ACE_Singleton<MaskedHttpHeaders, ACE_Recursive_Thread_Mutex> MaskedHttpHeadersSingleton;

extern "C" __attribute__((visibility("default"))) const MaskedHttpHeaders* qxcurl_masked_headers() {
  return MaskedHttpHeadersSingleton::instance();
}
