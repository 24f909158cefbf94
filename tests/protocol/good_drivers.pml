/* Two drivers that keep to docs/sync-protocol.md. Each may die at any step, DEATHS times between
 * them; it comes back with nothing remembered but which ids it has used, or stays away if the other
 * lives.
 *
 * Assumed of a driver that lives: less than a timeout passes between the grant and its start, and
 * between its signs of life. Assumed of one that clears a dead driver's lock: it has seen the same
 * grant, with no sync under way, for a whole timeout, and nobody writes between its last look and
 * its clearing.
 */
#define GOOD_DRIVERS
#include "switch.pml"

#ifndef DEATHS
#define DEATHS 2
#endif

byte deaths = DEATHS;
bit away[3];     /* by driver, 1 and 2: it does not come back */
bit turn[3];     /* a driver's ids are two, taken in turn */
byte request[3]; /* the request that a living driver waits for or syncs under */
bit syncing[3];  /* it has read that the lock is its own, and has not announced completion */

#define OTHER(me) (3 - me)
#define NEXT_ID(me) (2 * me - 1 + turn[me])
#define HOLDER_LIVES (syncing[1] || syncing[2] || \
                      (granted != NONE && granted == request[owner]))

inline mayDie() {
  if
  :: atomic { deaths > 0 -> deaths-- }; goto dead
  :: empty(waiting)
  fi
}

proctype Driver(byte me) {
ask:
  mayDie();
  do
  :: granted == NONE -> break
#ifndef NOBODY_CLEARS
  :: atomic {
       granted != NONE && status != IN_PROGRESS && age == TIMEOUT && empty(waiting) ->
       writeRequester(NOBODY);
       writeRequestId(NONE)
     };
     mayDie()
#endif
  od;
  /* From here on the lock may be taken by the other. */
  atomic {
    ROOM(ON_REQUESTER) && ROOM(ON_REQUEST_ID) ->
    turn[me] = !turn[me];
    request[me] = NEXT_ID(me);
    writeRequester(me);
    writeRequestId(request[me])
  };
  mayDie();
  if
  :: atomic { owner == me && granted == request[me] -> syncing[me] = 1 }
  :: atomic { owner != me || granted != request[me] -> request[me] = NONE }; goto ask
  fi;
  property(NeverTwoSyncs, !syncing[OTHER(me)]);
  writeSyncStatus(IN_PROGRESS);
  mayDie();
  writeHeartbeat();
  mayDie();
  if
  :: writeHeartbeat(); mayDie()
  :: skip
  fi;
  atomic { writeSyncStatus(COMPLETE); syncing[me] = 0; request[me] = NONE };
  goto ask;

dead:
  atomic {
    syncing[me] = 0;
    request[me] = NONE;
    if
    :: goto ask
    :: !away[OTHER(me)] -> away[me] = 1
    fi
  };
end:
  false
}

#ifdef SLOW_DRIVERS
#define IN_TIME true
#else
#define IN_TIME !(HOLDER_LIVES && (left == 1 || (left == 0 && age == TIMEOUT - 1)))
#endif

active proctype Time() {
  do
  :: atomic { ROOM(ON_TIME) && IN_TIME -> timePasses() }
  od
}

init {
  atomic {
    run Driver(1);
    run Driver(2)
  }
}

ltl SyncsGoOnCompleting { []<> completed }
