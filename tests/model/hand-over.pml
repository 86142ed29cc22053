/* The hand-over between the accept loop, the connection that is being served and a stop, as spin checks it. The steps
 * bear the names of the code's (Service_stop is Service::stop): PYXManager, Service, ServiceToken, ServedConnection,
 * SocketService. Where the code has no function of its own for a step, check.sh knows the step's name.
 *
 * What is checked, beside that nobody waits for ever (no deadlock, and no circle of steps at all, so `Stop` ends):
 *  - the token is held by one at most, given back by who has it, and free when `Stop` has returned; who gives it back has
 *    to tell no more than one;
 *  - no closed descriptor is shut, neither a connection's nor the listener's;
 *  - a client that comes alone is answered: it is not refused, nor cut off before its time;
 *  - a request that is here whole when a stop comes is answered, too;
 *  - no thread is started while the last one is not joined, and none is left when `Stop` has returned;
 *  - a client whose time is up does not keep another one from being answered.
 *
 * Each guard of the code stands between #ifndef and #endif, and check.sh takes them out one by one.
 *
 * A step is what others can see of the code in one piece. All of ServedConnection's operations are one step each: they
 * see and change nothing but what its mutex guards. So are the sections under the token's inner mutex, with the
 * notifications that follow them: who is woken looks again, however late.
 *
 * Time: the 30 s of a client may be over at any look, but not while a stop waits; its half second may. The short waits,
 * kIdleWait and kStopLook, end by time only where that matters: while the connection is open and was not cut off, or its
 * time is up, or after an accept that failed, but not while a stop waits. So a wait that nobody but its time-out would
 * end is a deadlock here, and what the service itself does between closing a connection and releasing the token, and
 * between the cut and the end of a connection, is taken to be shorter than kIdleWait.
 *
 * Left out: the bytes (a request has come whole or not at all), and a run directory that cannot be made, after which
 * nothing is started again. One thing fails, once: the start of a thread, the listener, an accept, or the removal of the
 * socket's file. */

#ifndef ROUNDS
#define ROUNDS 2
#endif

mtype:runs = { kIdle, kRunning, kStopped };
mtype:phases = { kNone, kReceiving, kWorking, kReplying };
mtype:owners = { nobody, acceptLoop, connectionThread, stopper };
mtype:listeners = { noListener, bound, listening, shut, closed };

/* ServiceToken, serviceCondition and serviceBusy; the run flag of Service */
bool innerLocked = false;
mtype:owners owner = nobody;
bool waitsForRelease = false;
bool waitsOnCondition = false;
bool serviceBusy = false;
mtype:runs runFlag = kIdle;

#define held (owner != nobody)
#define running (runFlag == kRunning)

/* ServedConnection; `shortDeadline`: of a stop; `cut`: the end of the time was acted upon */
byte servedFd = 0;
mtype:phases phase = kNone;
bool stopping = false;
bool shortDeadline = false;
bool cut = false;

/* SocketService */
mtype:listeners listener = noListener;
bool socketFile = false;
bool fileIsLeft = false;
chan backlog = [2] of { byte };

/* The clients, and the service's descriptors for them */
#define honest 0
#define hostile 1
typedef End {
  bool connected;
  bool sent;
  bool gone;
  bool receivingShut;
  bool replyShut;
  bool open;
  bool ended;
};
End client[2];
bool answered = false;
/* Whether the honest one may be left without an answer: not alone, too late, refused by a stop, for want of a thread. */
bool excused = false;
/* Whether the time of the hostile one was up when the honest one came. */
bool late = false;
bool honestWasHere = false;

/* PYXManager, and the threads */
bool managerRuns = false;
bool threadJoinable = false;
bool threadEnded = false;
bool connectionJoinable = false;
bool connectionEnded = false;
bool stopAsked = false;
bool hostDone = false;
chan startThread = [0] of { bit };
chan startConnection = [0] of { byte };

bool mayFail = true;
bool mayRestart = false;

/* ServiceToken */

inline take(who) {
  assert(!held);
  owner = who
}

inline unlockHoldingInner(who) {
  assert(owner == who);
  owner = nobody
}

inline announce() { waitsForRelease = false }
inline notify_all() { waitsOnCondition = false }

/* `meanwhile`: when there is something else to do. Sets `taken`. */
inline try_lock_until(who, meanwhile) {
  do
  :: atomic { !innerLocked && !held -> take(who); taken = true; break }
  :: atomic { !innerLocked && held -> assert(!waitsForRelease); waitsForRelease = true };
    if
    :: !waitsForRelease
    :: atomic { meanwhile -> waitsForRelease = false; taken = false; break }
    fi
  od
}

inline lock(who) { try_lock_until(who, false) }

inline try_lock(who) {
  atomic {
    !innerLocked ->
    if
#ifndef NO_LOOK_WHETHER_HELD
    :: held -> taken = false
    :: else -> take(who); taken = true
#else
    :: take(who); taken = true
#endif
    fi
  }
}

inline unlock(who) {
  atomic {
    !innerLocked ->
    unlockHoldingInner(who);
#ifndef NO_ANNOUNCE_BY_UNLOCK
    announce()
#endif
  }
}

inline ReleaseService(who) {
#ifndef RELEASE_OUTSIDE_INNER
  atomic {
    !innerLocked ->
#ifndef NO_BUSY_CLEARED_BY_RELEASE
    serviceBusy = false;
#endif
#else
  serviceBusy = false;
  atomic {
#endif
    unlockHoldingInner(who);
#ifndef NO_ANNOUNCE_BY_RELEASE
    announce();
#endif
#ifndef NO_NOTIFY_BY_RELEASE
    notify_all()
#endif
  }
}

/* Descriptors */

inline shutBoth(c) {
  assert(client[c].open);
  client[c].receivingShut = true;
  client[c].replyShut = true
}

inline cutReceiving(c) {
#ifndef CUT_BOTH_WAYS
  assert(client[c].open);
  client[c].receivingShut = true
#else
  shutBoth(c)
#endif
}

inline closeClient(c) {
  assert(client[c].open);
  client[c].open = false;
  client[c].ended = true
}

inline shutListener() {
  atomic {
    assert(listener != closed);
    if
    :: listener == listening -> listener = shut
    :: else
    fi
  }
}

/* ServedConnection */

inline enter(c) {
  atomic {
    servedFd = c;
    phase = kReceiving;
    shortDeadline = false;
    cut = false;
    if
#ifndef NO_CUT_BY_ENTER
    :: stopping -> cutReceiving(c)
#endif
    :: else
    fi
  }
}

inline requestReceived() {
#ifndef NO_WORKING_ONCE_RECEIVED
  phase = kWorking;
#endif
  cut = false
}

inline replyStarts() {
  atomic {
    phase = kReplying;
#ifndef NO_SHORT_REPLY
    shortDeadline = stopping
#endif
  }
}

inline leave() {
  atomic {
    phase = kNone;
    servedFd = 0;
    shortDeadline = false;
    cut = false
  }
}

inline ServedConnection_stop() {
  atomic {
    stopping = true;
    if
#ifndef NO_CUT_BY_STOP
    :: phase == kReceiving -> cutReceiving(servedFd)
#endif
#ifndef NO_SHORTER_REPLY
    :: phase == kReplying -> shortDeadline = true
#endif
    :: else
    fi
  }
}

/* The time of the client may be up, and that was not acted upon. */
#define timeMayBeUp ((phase == kReceiving || phase == kReplying) && !cut && (shortDeadline || !stopAsked))

/* In a step that ends a wait because time is up. */
inline cutNow() {
  cut = true;
  if
  :: phase == kReceiving -> cutReceiving(servedFd)
  :: else -> shutBoth(servedFd)
  fi;
  if
#ifndef NO_LOOK_AT_DEADLINE
  :: servedFd == honest -> excused = true
#endif
  :: else
  fi
}

#ifndef CUT_WITHOUT_MUTEX
#define cutOverdue cutNow
#else
inline cutOverdue() {
  atomic { cut = true; excused = true; overdueFd = servedFd };
  atomic { shutBoth(overdueFd) }
}
#endif

/* Service */

inline prepare() {
  atomic {
    !innerLocked ->
#ifndef NO_PREPARED_RUN
    runFlag = kIdle;
#endif
#ifndef NO_RESUME
    stopping = false
#endif
  }
}

inline Service_stop() {
  atomic {
#ifndef STOP_OUTSIDE_INNER
    !innerLocked ->
#endif
    runFlag = kStopped;
#ifndef NO_BUSY_BY_STOP
    serviceBusy = true;
#endif
#ifndef NO_NOTIFY_BY_STOP
    notify_all()
#endif
  };
#ifndef NO_STOP_OF_CONNECTION
  ServedConnection_stop();
#endif
#ifdef STOP_WITHOUT_TOKEN
#elif defined(NO_LOOK_BY_STOP)
  lock(stopper);
#else
  do
  :: try_lock_until(stopper, timeMayBeUp);
    if
    :: taken -> break
    :: else -> lookByStop()
    fi
  od;
#endif
#ifndef NO_SHUTDOWN_BY_STOP
  shutListener();
#endif
#ifndef STOP_WITHOUT_TOKEN
  unlock(stopper)
#endif
}

inline lookByStop() {
#ifndef CUT_WITHOUT_MUTEX
  atomic {
    if
    :: timeMayBeUp -> cutOverdue()
    :: else
    fi
  }
#else
  if
  :: timeMayBeUp -> cutOverdue()
  :: else
  fi
#endif
}

#define isSpent (listener == bound || listener == shut)

inline retire() {
  atomic {
    if
#ifndef NO_UNLINK
#ifndef NO_LOOK_AT_FILE_LEFT
    :: isSpent || fileIsLeft -> unlink()
#else
    :: isSpent -> unlink()
#endif
#endif
    :: else
    fi
  };
#ifndef NO_RETIRE
  if
  :: isSpent -> closeListener(); listener = noListener
  :: else
  fi
#endif
}

inline unlink() {
  if
  :: mayFail -> mayFail = false; mayRestart = true; fileIsLeft = true
  :: true -> socketFile = false; fileIsLeft = false
  fi
}

/* Who still waits in it meets the end there. */
inline closeListener() {
  atomic {
    listener = closed;
    do
    :: backlog ? c -> client[c].ended = true
    :: empty(backlog) -> break
    od;
    c = 0
  }
}

/* Sets `opened`. It fails where the descriptor is bound already, or the file is there; and before or after the bind. */
inline listen() {
  atomic {
    if
    :: mayFail -> mayFail = false; mayRestart = true;
      if
      :: listener == noListener && !socketFile -> listener = bound; socketFile = true
      :: true
      fi
    :: listener == noListener && !socketFile -> listener = listening; socketFile = true; opened = true
    :: listener != noListener || socketFile
    fi
  }
}

/* Sets `opened`. */
inline Service_open() {
#ifndef OPEN_WITHOUT_TOKEN
  lock(acceptLoop);
#endif
  if
#ifndef NO_LOOK_BY_OPEN
  :: atomic { !innerLocked && runFlag == kStopped -> skip }
  :: atomic { !innerLocked && runFlag != kStopped -> runFlag = kRunning;
#else
  :: atomic { !innerLocked -> runFlag = kRunning;
#endif
#ifndef NO_BUSY_CLEARED_BY_OPEN
      serviceBusy = false
#endif
    };
    retire();
    listen()
  fi;
#ifndef OPEN_WITHOUT_TOKEN
  unlock(acceptLoop)
#endif
}

/* A wait on serviceCondition; `timeOut`: when it may end by time. */
inline wait_until(condition, timeOut) {
  do
  :: atomic { !innerLocked -> innerLocked = true };
    if
    :: atomic { condition -> innerLocked = false; break }
    :: else -> atomic { innerLocked = false; waitsOnCondition = true };
      if
      :: !waitsOnCondition
      :: atomic { timeOut -> waitsOnCondition = false; break }
      fi
    fi
  od
}

#define connectionIsOpen (connectionJoinable && phase != kNone && !cut)

inline sleep() {
  if
  :: !serviceBusy
#ifndef NO_LOOK_BY_SLEEP
  :: else -> wait_until(!serviceBusy || !running, connectionIsOpen)
#else
  :: else -> wait_until(!serviceBusy, connectionIsOpen)
#endif
  fi
}

#ifndef NO_LOOK_BY_PAUSE
inline pause() { wait_until(!running, !stopAsked) }
#else
inline pause() { wait_until(false, !stopAsked) }
#endif

/* Readable: somebody waits, or it is shut. */
inline clientWaits() { nempty(backlog) || listener == shut }

/* Whether the time of who is being served has to be taken to be up by now. */
#define timeIsUp (timeMayBeUp && late && servedFd == hostile)

inline lookAtTime() {
#ifndef CUT_WITHOUT_MUTEX
  atomic {
    if
#ifndef NO_CUT_FOR_ANOTHER
    :: timeMayBeUp -> cutOverdue()
    :: !timeIsUp
#else
    :: true
#endif
    fi
  }
#else
  if
  :: timeMayBeUp -> cutOverdue()
  :: !timeIsUp
  fi
#endif
}

/* Sets `accepted`. */
inline accept() {
  if
  :: atomic { backlog ? c -> client[c].open = true; accepted = true }
  :: atomic { listener == shut && empty(backlog) }; pause()
  :: atomic { nempty(backlog) && mayFail -> mayFail = false }; pause()
  fi
}

/* Sets `taken`. */
inline takeToken() {
  atomic {
    if
#ifndef NO_FIRST_LOOK
    :: !running -> taken = false
#endif
#ifndef NO_BUSY_LOOK
    :: serviceBusy -> taken = false
#endif
    :: else -> taken = true
    fi
  };
  if
  :: taken -> try_lock(acceptLoop);
    if
#ifndef NO_SECOND_LOOK
    :: taken && !running -> unlock(acceptLoop); taken = false
#endif
    :: else
    fi
  :: else
  fi
}

inline handOver() {
#ifndef NO_BUSY_BY_HAND_OVER
  serviceBusy = true;
#endif
#ifndef NO_JOIN_BEFORE_START
  joinConnection();
#endif
  if
  :: atomic {
      assert(!connectionJoinable);
      connectionEnded = false;
      connectionJoinable = true;
      owner = connectionThread;
      startConnection ! c
    }
  :: atomic { mayFail -> mayFail = false; excused = true };
#ifndef NO_RELEASE_AFTER_FAILED_START
    ReleaseService(acceptLoop);
#endif
#ifndef NO_CLOSE_AFTER_FAILED_START
    atomic { closeClient(c) }
#endif
  fi
}

inline joinConnection() {
  if
  :: connectionJoinable -> atomic { connectionEnded -> connectionJoinable = false; connectionEnded = false }
  :: else
  fi
}

inline refuse() { atomic { shutBoth(c); closeClient(c) } }

inline onePass() {
  clientWaits();
  lookAtTime();
  accept();
  if
  :: accepted ->
#ifndef NO_SLEEP
    sleep();
#endif
    takeToken();
    if
    :: taken -> handOver()
    :: else -> refuse()
    fi;
    atomic { c = 0; accepted = false; taken = false }
  :: else
  fi
}

inline Service_close() {
#ifndef NO_JOIN_BY_CLOSE
  joinConnection();
#endif
#ifndef NO_SHUTDOWN_BY_CLOSE
  shutListener();
#endif
#ifndef NO_REFUSAL_BY_CLOSE
  refuseBacklog()
#endif
}

inline refuseBacklog() {
  do
  :: atomic { backlog ? c -> client[c].open = true; refuse(); c = 0 }
  :: atomic { empty(backlog) -> break }
  :: atomic { nempty(backlog) && mayFail -> mayFail = false };
#ifndef NO_RETIRE_BY_CLOSE
#ifndef RETIRE_WITHOUT_TOKEN
    lock(acceptLoop);
#endif
    retire();
#ifndef RETIRE_WITHOUT_TOKEN
    unlock(acceptLoop);
#endif
#endif
    break
  od
}

/* The connection's thread, for one connection after the other. */
active proctype serve() {
  byte c;
end:
  do
  :: startConnection ? c ->
    enter(c);
    /* handle: a request, or an end before it was whole */
    if
    :: atomic { client[c].sent -> requestReceived() };
      replyStarts();
      atomic {
        if
        :: c == honest && !client[c].replyShut -> answered = true
        :: client[c].replyShut
        fi
      }
    :: !client[c].sent && (client[c].receivingShut || client[c].gone)
    fi;
#ifndef LEAVE_AFTER_CLOSE
    leave();
#endif
    atomic { closeClient(c) };
#ifdef LEAVE_AFTER_CLOSE
    leave();
#endif
    ReleaseService(connectionThread);
    atomic { connectionEnded = true; c = 0 }
  od
}

inline waitForRestart() {
  if
#ifndef NO_LOOK_BEFORE_RESTART
  :: !managerRuns
#endif
  :: atomic { managerRuns && mayRestart -> mayRestart = false }
  fi
}

/* The service thread, for one start of it after the other. */
active proctype ThreadProc() {
  byte c;
  bool opened, accepted, taken;
#ifdef CUT_WITHOUT_MUTEX
  byte overdueFd;
#endif
end:
  do
  :: startThread ? 0 ->
    do
    :: managerRuns ->
      Service_open();
      if
      :: opened ->
        do
        :: running -> onePass()
        :: else -> break
        od;
        Service_close()
      :: else
      fi;
      atomic { opened = false; taken = false };
      waitForRestart()
    :: else -> break
    od;
    threadEnded = true
  od
}

inline Start() {
  if
#ifndef NO_LOOK_BY_START
  :: managerRuns
  :: else ->
#else
  :: true ->
#endif
    prepare();
    managerRuns = true;
    if
    :: atomic { assert(!threadJoinable); threadJoinable = true; startThread ! 0 }
    :: atomic { mayFail -> mayFail = false;
#ifndef NO_RUNNING_CLEARED_AFTER_FAILED_START
        managerRuns = false
#endif
      }
    fi
  fi
}

/* Once a stop was asked for, only a request that is here whole in the served connection is to be answered. */
inline excuse() {
  if
  :: phase == kNone || servedFd != honest || !client[honest].sent -> excused = true
  :: else
  fi
}

inline Stop() {
  if
  :: managerRuns ->
    atomic { managerRuns = false; stopAsked = true; excuse() };
    Service_stop();
    if
    :: threadJoinable -> atomic { threadEnded -> threadJoinable = false; threadEnded = false }
    :: else
    fi;
    stopAsked = false
  :: else
  fi
}

/* The daemon's thread: on and off, at any moment, or once the service listens, or once the honest one was there. */
active proctype Host() {
  byte round = 0;
  bool taken;
#ifdef CUT_WITHOUT_MUTEX
  byte overdueFd;
#endif
  do
  :: round < ROUNDS ->
    Start();
    if
    :: true -> Start(); honestWasHere
    :: true -> Start(); listener == listening
    :: true
    fi;
    Stop();
    atomic { assert(!held && !connectionJoinable && !threadJoinable); round++; taken = false }
  :: else -> break
  od;
  hostDone = true
}

inline connect(id) {
  listener == listening -> client[id].connected = true; backlog ! id
}

/* Leaves nothing behind that would make another state of the same. */
inline forget(id) {
  client[id].connected = false;
  client[id].sent = false;
  client[id].gone = false;
  client[id].receivingShut = false;
  client[id].replyShut = false;
  client[id].ended = false
}

/* The service waits for the hostile one, and nothing of it will come. */
#define isWaitedForInVain \
  (servedFd == hostile && ((phase == kReceiving && !client[hostile].sent) || phase == kReplying))

active proctype HonestClient() {
  if
  :: atomic {
      connect(honest);
      if
      :: isWaitedForInVain -> late = true
      :: true
      fi;
      excused = stopAsked || (client[hostile].connected && !client[hostile].ended && !late)
    }
    atomic {
      if
      :: !client[honest].receivingShut -> client[honest].sent = true
      :: else
      fi
    }
    atomic {
      client[honest].ended -> assert(answered || excused);
      answered = false;
      excused = false;
      late = false;
      honestWasHere = true;
      forget(honest)
    }
  :: hostDone
  fi
}

/* Silent, or one that sends a request and does not take the reply, or one that goes at any moment. */
active proctype HostileClient() {
  if
  :: atomic { connect(hostile) }
    if
    :: skip
    :: client[hostile].gone = true
    fi
    atomic { client[hostile].ended -> forget(hostile) }
  :: atomic { connect(hostile); client[hostile].sent = true }
    atomic { client[hostile].ended -> forget(hostile) }
  :: hostDone
  fi
}
