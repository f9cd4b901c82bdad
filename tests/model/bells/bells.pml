/* How who waits for a value in shared memory and who writes it agree. Two writers publish under a lock and look at the
 * bells behind it, each by itself; two readers wait for whatever comes next; where both are due, a third process wakes
 * them. What may go wrong: somebody sleeps for good beside what he waits for, which is an invalid end. With one of the
 * names below defined it does.
 *
 *   CLEARS    the writer clears the bell that it has rung
 *   EARLY     the writer looks at the bells before it publishes
 *   SLEEPS    who falls asleep does not compare
 */

#define WRITERS 2
#define READERS 2

byte sequence;
byte bell[READERS];
byte rung[READERS];
bool sleeps[READERS];
bool later;

inline wakeAll() {
  atomic { sleeps[0] = false; sleeps[1] = false }
}

inline look(i) {
  awaited = bell[i];
  if
  :: awaited != 0 && awaited <= published ->
     if
     :: rung[i] != awaited -> rung[i] = awaited; due++
     :: else
     fi
#ifdef CLEARS
     bell[i] = 0
#endif
  :: else
  fi
}

active [WRITERS] proctype Writer() {
  byte published, awaited, due;
#ifdef EARLY
  published = sequence + 1;
#else
  atomic { sequence++; published = sequence }
#endif
  look(0);
  look(1);
#ifdef EARLY
  sequence++;
#endif
  if
  :: due == 0
  :: due == 1 -> wakeAll()
  :: due == 2 -> later = true
  fi
}

active proctype Waker() {
end:
  do
  :: atomic { later -> later = false } wakeAll()
  od
}

active [READERS] proctype Reader() {
  byte seen, latest;
  byte own = _pid - WRITERS - 1;
  do
  :: seen == WRITERS -> break
  :: else ->
     bell[own] = seen + 1;
     latest = sequence;
     if
     :: latest > seen -> bell[own] = 0; seen = latest
     :: else ->
        atomic {
          if
#ifdef SLEEPS
          :: true -> sleeps[own] = true
#else
          :: sequence == latest -> sleeps[own] = true
          :: else
#endif
          fi
        }
        !sleeps[own]
     fi
  od
}
