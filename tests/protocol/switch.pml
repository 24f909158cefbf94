/* The switch's side of the sync protocol: the region machine and its timer, as docs/sync-protocol.md
 * tells of them. Included by the models of drivers; see README.md.
 *
 * A driver's write stands in the region at once, and its notification waits in `waiting`: once,
 * however often it is written. `deliver` is one turn of the switch's loop. Time passes in ticks, of
 * which the region sync timeout has TIMEOUT.
 */

#ifndef TIMEOUT
#define TIMEOUT 2
#endif
#ifndef PENDING
#define PENDING 5 /* how many different notifications may wait; there are no more than these */
#endif

/* The values of a sync status. */
#define UNKNOWN 0
#define IN_PROGRESS 1
#define TIMED_OUT 2
#define COMPLETE 3

#define NOBODY 0 /* an empty requester or owner */
#define NONE 0   /* an empty request id */

/* Notifications. */
#define ON_REQUESTER 1
#define ON_REQUEST_ID 2
#define ON_SYNC_STATUS 3
#define ON_HEARTBEAT 4
#define ON_TIME 5

/* What the drivers write in the region. */
byte requester = NOBODY;
byte requestId = NONE;
byte announced = UNKNOWN;

/* What the switch answers in the region's status. */
byte status = UNKNOWN;
#ifdef GRAPH
byte oldStatus = UNKNOWN;
#else
hidden byte oldStatus = UNKNOWN; /* looked at right after it is written */
#endif
byte owner = NOBODY;
byte granted = NONE;

/* The ticks until the timer fires; 0 while it is off. */
byte left = 0;

chan waiting = [PENDING] of { byte };

/* Whether a notification can be queued: one that waits already needs no place. */
#define ROOM(n) (len(waiting) < PENDING || waiting??[n])

inline notify(n) {
  if
  :: waiting??[n] -> skip
  :: else -> waiting!n
  fi
}

/* Arms the timer, or disarms it with 0. An expiry that waits is void then, and is taken from the
 * queue: it would be passed over in this same turn of the loop.
 */
inline timerIs(ticks) {
  left = ticks;
  if
  :: waiting??[ON_TIME] -> waiting??ON_TIME
  :: else -> skip
  fi
}

/* Each step is printed as "STEP from event value to", a state as its numbers and what waits. */
hidden byte places;
hidden byte one;
inline printState() {
  printf(" %d,%d,%d,%d,%d,%d,%d,%d,", requester, requestId, announced, status, oldStatus, owner,
         granted, left);
  places = len(waiting);
  do
  :: places > 0 -> waiting?one; printf("%d", one); waiting!one; places--
  :: else -> break
  od
}
inline stepBegins() {
  printf("STEP");
  printState()
}
inline stepEnds() {
  printState();
  printf("\n")
}

/* The monitors: the properties, kept apart from how the switch does it. A graph has none. */
#ifndef GRAPH
mtype = { NeverTwoHolders, AGrantNamesItsRequest, AFreeLockNamesNobody,
          TheOldStatusIsTheOneBefore, NoCompletionWithoutAStart, ACompletionFreesTheLock,
          ACompletionIsNeverRefused, ASilentHolderLosesTheLock, ARunningSyncIsWatched,
          EveryLockIsWatched, NeverTwoSyncs };

inline property(name, holds) {
  if
  :: holds -> skip
  :: else -> printf("\nBROKEN %e\n", name); assert(false)
  fi
}

bit begun = 0;       /* a start was accepted, and nothing has ended that sync */
bit proven = 0;      /* the holder of the lock, or somebody for it, has shown life since the grant */
byte silent = 0;     /* the ticks since the last sign of life; no more than TIMEOUT are counted */
#ifdef GOOD_DRIVERS
byte age = 0;        /* the ticks since the last grant; no more than TIMEOUT are counted */
bit completed = 0;   /* the last turn of the loop completed a sync */
#else
hidden byte age;
hidden byte completed;
#endif
hidden byte ownerBefore;
hidden byte grantedBefore;
hidden byte statusBefore;

inline remember() {
  ownerBefore = owner;
  grantedBefore = granted;
  statusBefore = status
}

/* After each notification. */
inline observe(n) {
  /* A held lock is not handed over. */
  property(NeverTwoHolders, grantedBefore == NONE || granted == NONE ||
                             (owner == ownerBefore && granted == grantedBefore));
  property(AGrantNamesItsRequest, grantedBefore != NONE || granted == NONE ||
                                   (owner == requester && granted == requestId &&
                                    (n == ON_REQUESTER || n == ON_REQUEST_ID)));
  property(AFreeLockNamesNobody, granted != NONE || owner == NOBODY);
  property(TheOldStatusIsTheOneBefore, status == statusBefore || oldStatus == statusBefore);
  if
  :: granted != NONE && grantedBefore == NONE -> proven = 0; age = 0
  :: else -> skip
  fi;
  if
  :: n == ON_HEARTBEAT || (n == ON_SYNC_STATUS && announced == IN_PROGRESS) ->
     proven = 1; silent = 0
  :: else -> skip
  fi;
#if defined(GOOD_DRIVERS) && !defined(SLOW_DRIVERS)
  property(ACompletionIsNeverRefused,
          n != ON_SYNC_STATUS || announced != COMPLETE || statusBefore == IN_PROGRESS);
#endif
  if
  :: n == ON_SYNC_STATUS && announced == IN_PROGRESS -> begun = 1
  :: status == COMPLETE && statusBefore != COMPLETE ->
     property(NoCompletionWithoutAStart, begun && n == ON_SYNC_STATUS && announced == COMPLETE);
     property(ACompletionFreesTheLock, granted == NONE);
     begun = 0;
     completed = 1
  :: n == ON_TIME || (n == ON_SYNC_STATUS && announced != COMPLETE) -> begun = 0
  :: else -> skip
  fi
}

/* When nothing waits any more. */
inline observeIdle() {
  /* No lock outlives the timeout after the last sign of life. */
  property(ASilentHolderLosesTheLock, granted == NONE || !proven || silent < TIMEOUT);
  property(ARunningSyncIsWatched, status != IN_PROGRESS || left > 0);
#ifdef EVERY_LOCK_IS_WATCHED
  property(EveryLockIsWatched, granted == NONE || left > 0);
#endif
  if
  :: granted == NONE -> proven = 0; silent = 0; age = 0
  :: else -> skip
  fi
}
inline observeTick() {
  if
  :: granted != NONE && silent < TIMEOUT -> silent++
  :: else -> skip
  fi;
  if
  :: granted != NONE && age < TIMEOUT -> age++
  :: else -> skip
  fi
}
inline observeTurn() { completed = 0 }
#else
inline remember() { skip }
inline observe(n) { skip }
inline observeIdle() { skip }
inline observeTick() { skip }
inline observeTurn() { skip }
#endif

/* The tables of the page. */
inline handleHeartbeat() { timerIs(TIMEOUT) }

inline handleLockRequest() {
  if
  :: requestId == NONE && requester == NOBODY -> granted = NONE; owner = NOBODY
  :: requestId == NONE && requester != NOBODY -> skip
  :: requestId != NONE && granted == NONE && (owner == NOBODY || owner == requester) ->
     owner = requester;
     granted = requestId
  :: requestId != NONE && granted == NONE && owner != NOBODY && owner != requester -> skip
  :: requestId != NONE && granted != NONE -> skip
  fi
}

inline handleSyncStatus() {
  if
  :: announced == IN_PROGRESS ->
     oldStatus = status;
     status = IN_PROGRESS;
     handleHeartbeat()
  :: announced == COMPLETE && status == IN_PROGRESS ->
     oldStatus = status;
     status = COMPLETE;
     timerIs(0);
     owner = NOBODY;
     granted = NONE
  :: announced == COMPLETE && status != IN_PROGRESS -> skip
  :: announced == UNKNOWN || announced == TIMED_OUT ->
     oldStatus = status;
     status = announced
  fi
}

inline handleTime() {
  owner = NOBODY;
  granted = NONE;
  oldStatus = status;
  status = TIMED_OUT
}

/* What happens, each of it one step. */
inline writeRequester(who) {
  d_step {
    stepBegins();
    printf(" requesterIs %d", who);
    requester = who;
    notify(ON_REQUESTER);
    stepEnds()
  }
}
inline writeRequestId(id) {
  d_step {
    stepBegins();
    printf(" requestIdIs %d", id);
    requestId = id;
    notify(ON_REQUEST_ID);
    stepEnds()
  }
}
inline writeSyncStatus(value) {
  d_step {
    stepBegins();
    printf(" syncStatusIs %d", value);
    announced = value;
    notify(ON_SYNC_STATUS);
    stepEnds()
  }
}
inline writeHeartbeat() {
  d_step {
    stepBegins();
    printf(" heartbeat 0");
    notify(ON_HEARTBEAT);
    stepEnds()
  }
}
inline timePasses() {
  d_step {
    stepBegins();
    printf(" tick 0");
    if
    :: left == 0 -> skip
    :: left == 1 -> left = 0; notify(ON_TIME)
    :: left > 1 -> left--
    fi;
    observeTick();
    stepEnds()
  }
}
hidden byte taken;
inline turnOfTheLoop() {
  d_step {
    stepBegins();
    printf(" deliver 0");
    observeTurn();
    do
    :: nempty(waiting) ->
       waiting?taken;
       remember();
       if
       :: taken == ON_REQUESTER || taken == ON_REQUEST_ID -> handleLockRequest()
       :: taken == ON_SYNC_STATUS -> handleSyncStatus()
       :: taken == ON_HEARTBEAT -> handleHeartbeat()
       :: taken == ON_TIME -> handleTime()
       fi;
       observe(taken)
    :: empty(waiting) -> break
    od;
    observeIdle();
    stepEnds()
  }
}

active proctype Switch() {
  do
  :: nempty(waiting) -> turnOfTheLoop()
  od
}
