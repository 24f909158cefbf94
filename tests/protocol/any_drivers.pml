/* Two drivers that keep to nothing: each writes any of its attributes, with any value, at any time.
 * What holds here holds whatever drivers do.
 */
#include "switch.pml"

#define IDS 2

proctype Driver(byte me) {
  do
  :: atomic { ROOM(ON_REQUESTER) -> writeRequester(me) }
  :: atomic { ROOM(ON_REQUESTER) -> writeRequester(NOBODY) }
  :: atomic { ROOM(ON_REQUEST_ID) -> writeRequestId(NONE) }
  :: atomic { ROOM(ON_REQUEST_ID) -> writeRequestId(1) }
  :: atomic { ROOM(ON_REQUEST_ID) -> writeRequestId(2) }
  :: atomic { ROOM(ON_SYNC_STATUS) -> writeSyncStatus(UNKNOWN) }
  :: atomic { ROOM(ON_SYNC_STATUS) -> writeSyncStatus(IN_PROGRESS) }
  :: atomic { ROOM(ON_SYNC_STATUS) -> writeSyncStatus(TIMED_OUT) }
  :: atomic { ROOM(ON_SYNC_STATUS) -> writeSyncStatus(COMPLETE) }
  :: atomic { ROOM(ON_HEARTBEAT) -> writeHeartbeat() }
  od
}

active proctype Time() {
  do
  :: atomic { ROOM(ON_TIME) -> timePasses() }
  od
}

init {
  atomic {
    run Driver(1);
    run Driver(2)
  }
}
