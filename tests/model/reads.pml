/*
 * A model of lock-free reads for the model checker Spin: scripts/check_model.sh runs it.
 *
 * Every access to memory that another thread can see is a step of its own; Spin runs the steps of
 * all threads in every order. Memory is sequentially consistent here: what weaker memory allows is
 * argued in docs/CONCURRENCY.md and tested by tests/litmus.
 *
 * The words of the source are kept: S is the delete lock, the gate is ZebReadGate, w[h] the word of
 * hash h, "aside" the list of the hashes that eviction has met pinned. Time is a counter; a list
 * that is sorted by stamps is modelled by the stamps.
 *
 * A configuration defines which threads run. A mutant leaves out one step, and must fail.
 */

#ifndef HASHES
#define HASHES 2
#endif

/* Mutants of one condition: 1 leaves it out. */
#ifndef OPEN_IGNORES_LOCKED
#define OPEN_IGNORES_LOCKED 0
#endif
#ifndef OPEN_IGNORES_RESIDENT
#define OPEN_IGNORES_RESIDENT 0
#endif
#ifndef CLOSE_IGNORES_LOCKED
#define CLOSE_IGNORES_LOCKED 0
#endif
#ifndef CLOSE_IGNORES_FLAG
#define CLOSE_IGNORES_FLAG 0
#endif
#ifndef EMPTY_WITH_OPEN_GATE
#define EMPTY_WITH_OPEN_GATE 0
#endif
#ifndef EVICT_IGNORES_USED
#define EVICT_IGNORES_USED 0
#endif
#ifndef NO_DRAIN_TIME
#define NO_DRAIN_TIME 0
#endif

/* The word of a hash. */
#define REFERENCE 1
#define REFERENCES 7
#define LOCKED 8
#define RESIDENT 16
#define EVICTABLE 32
#define USED 64
#define COPY 128
#define COPIES 384
#define PIN 512
#define references(v) ((v) & REFERENCES)
#define pins(v) ((v) >> 9)
#define has(v, bits) (((v) & (bits)) != 0)

#define NOWHERE 0
#define LISTED 1
#define ASIDE 2

#define FREE 255

/* Threads, by their process number: the first process is number 0. */
#define THREADS 4

short w[HASHES];
byte stamp[HASHES];
byte placeStamp[HASHES];
byte place[HASHES];
byte clock;

/* Whether a hash lives, is registered, and has the memory of its block. */
bool lives[HASHES];
bool registered[HASHES];
bool hasBlock[HASHES];

/* The locks: the owner's number. */
byte S = FREE;
byte registry = FREE;
byte mutex[HASHES];

/* The gate, and the slots. A stack is a set: its order does not matter to the drain. */
bool closed;
bool inside[THREADS];
bool stack[THREADS * HASHES];
/* Taken from a stack, and its link not read yet. */
bool linked[HASHES];
bool unpinsSlow;
byte drainBegan;

/* For the assertions: uses that run, and how many began; whether the last use of h began after the
   last one of the other hash had ended; whether a closer counts on being alone; threads inside. */
byte running[HASHES];
byte begun[HASHES];
bool isAfter[HASHES];
bool exclusive;
byte entered;

#define other(h) (1 - (h))
#define at(t, h) ((t) * HASHES + (h))

inline lockS() { atomic { S == FREE -> S = _pid } }
inline unlockS() { S = FREE }

/* One change of a word, if it is still `v`. */
inline exchange(_hash, _old, _new, _done)
{
    d_step {
        assert(lives[_hash]);
        if
        :: w[_hash] == (_old) -> w[_hash] = (_new); _done = true
        :: else -> _done = false
        fi
    }
}

inline read(_hash, _word)
{
    d_step { assert(lives[_hash]); _word = w[_hash] }
}

inline enter(hasEntered)
{
    inside[_pid] = true;
    atomic {
#ifdef NO_LOOK_AT_GATE
        hasEntered = true;
#else
        hasEntered = !closed;
        if
        :: closed -> inside[_pid] = false
        :: else
        fi
#endif
        assert(!hasEntered || !exclusive);
        entered = (hasEntered -> entered + 1 : entered)
    }
}

inline leave() { d_step { entered--; inside[_pid] = false } }

/* Waits until no slot is marked. */
inline closeGate()
{
    closed = true;
#ifndef NO_WAIT_FOR_SLOTS
    atomic { !inside[0] };
    atomic { !inside[1] };
    atomic { !inside[2] };
    atomic { !inside[3] };
#endif
    d_step { exclusive = true; assert(entered == 0) }
}

inline openGate() { d_step { exclusive = false; closed = false } }

/* Notes for the order. */
inline beginUse(x, seenBefore)
{
    d_step {
        seenBefore = 255;
        if
        :: HASHES == 2 && running[other(x)] == 0 -> seenBefore = begun[other(x)]
        :: else
        fi;
        running[x]++;
        begun[x]++;
        if
        :: HASHES == 2 -> isAfter[other(x)] = false
        :: else
        fi
    }
}

inline endUse(x, seenBefore, isCounted)
{
    d_step {
        running[x]--;
        if
        :: HASHES == 2 && isCounted && seenBefore != 255 && seenBefore == begun[other(x)] -> isAfter[x] = true
        :: else
        fi
    }
}

inline push(x)
{
    d_step {
        assert(lives[x]);
        /* On one stack at most, and no drain is about to read the link. */
        assert(!linked[x]);
        assert(!stack[at(0, x)] && !stack[at(1, x)] && !stack[at(2, x)] && !stack[at(3, x)]);
        stack[at(_pid, x)] = true
    }
}

/* References. */
inline addReference(x)
{
    do
    :: read(x, v);
       if
       :: has(v, LOCKED) ->
          atomic { mutex[x] == FREE -> mutex[x] = _pid };
          d_step { assert(lives[x]); w[x] = w[x] + REFERENCE };
          mutex[x] = FREE;
          break
       :: else ->
          exchange(x, v, v + REFERENCE, done);
          if
          :: done -> break
          :: else
          fi
       fi
    od
}

inline dropReference(x)
{
    last = false;
    do
    :: read(x, v);
#ifdef NO_REGISTRY_FOR_LAST
       if
       :: !has(v, LOCKED) ->
          exchange(x, v, v - REFERENCE, done);
          if
          :: done && references(v) == 1 -> registered[x] = false; last = true; break
          :: done && references(v) != 1 -> break
          :: else
          fi
       :: else
#else
       if
       :: !has(v, LOCKED) && references(v) > 1 ->
          exchange(x, v, v - REFERENCE, done);
          if
          :: done -> break
          :: else
          fi
       :: else
#endif
          ->
          atomic { registry == FREE -> registry = _pid };
          atomic { assert(lives[x]); mutex[x] == FREE -> mutex[x] = _pid };
          d_step {
              assert(references(w[x]) > 0);
              w[x] = w[x] - REFERENCE;
              last = (references(w[x]) == 0);
              if
              :: last -> registered[x] = false
              :: else
              fi
          };
          mutex[x] = FREE;
          registry = FREE;
          break
       fi
    od;
    if
    :: last -> endHash(x)
    :: else
    fi
}

inline endHash(x)
{
    read(x, v);
    if
    :: has(v, RESIDENT | EVICTABLE | USED) ->
       lockS();
       dismiss(x);
       unlockS()
    :: else ->
#ifndef END_WITHOUT_MUTEX
       /* Eviction may not have unlocked the hash yet. */
       atomic { mutex[x] == FREE -> mutex[x] = _pid };
       mutex[x] = FREE
#else
       skip
#endif
    fi;
    d_step {
        assert(lives[x]);
        assert(references(w[x]) == 0 && !has(w[x], RESIDENT | USED | LOCKED));
        assert(place[x] == NOWHERE && mutex[x] == FREE && !linked[x]);
        assert(!stack[at(0, x)] && !stack[at(1, x)] && !stack[at(2, x)] && !stack[at(3, x)]);
        lives[x] = false
    }
}

/* With S held. Takes the stacks one after another. */
inline drain()
{
    d_step { clock++; drainBegan = clock };
    t = 0;
    do
    :: t == THREADS -> break
    :: else ->
       /* The exchange of the head. What it took is kept in `taken`, one bit for each hash. */
       d_step {
           taken = 0;
           if
           :: stack[at(t, 0)] -> stack[at(t, 0)] = false; linked[0] = true; taken = taken | 1
           :: else
           fi;
           if
           :: HASHES == 2 && stack[at(t, HASHES - 1)] ->
              stack[at(t, HASHES - 1)] = false; linked[HASHES - 1] = true; taken = taken | 2
           :: else
           fi
       };
       do
       :: taken == 0 -> break
       :: else ->
          d_step {
              g = ((taken & 1) -> 0 : 1);
              taken = ((taken & 1) -> taken - 1 : 0)
          };
#ifdef LINK_READ_LATE
          d_step { assert(lives[g]); dv = w[g]; w[g] = w[g] & (~USED) };
          d_step { linked[g] = false };
          d_step { assert(lives[g]); ds = stamp[g] };
#elif defined(STAMP_READ_EARLY)
          d_step { linked[g] = false; ds = stamp[g] };
          d_step { assert(lives[g] && has(w[g], USED)); dv = w[g]; w[g] = w[g] & (~USED) };
#else
          d_step { linked[g] = false };
          d_step { assert(lives[g] && has(w[g], USED)); dv = w[g]; w[g] = w[g] & (~USED) };
          d_step { assert(lives[g]); ds = stamp[g] };
#endif
          d_step {
              assert(lives[g]);
              if
              :: has(dv, EVICTABLE) -> place[g] = LISTED; placeStamp[g] = ds
              :: else
              fi;
              dv = 0; ds = 0; g = 0
          }
       od;
       t++
    od;
    t = 0
}

/* With S held, and the hash locked, ended, or the gate closed. */
inline dismiss(x)
{
#ifndef FREE_WITHOUT_DRAIN
    do
    :: read(x, v);
       if
       :: has(v, USED) -> drain()
       :: else -> break
       fi
    od;
#endif
#ifndef NO_WAIT_FOR_COPIES
    atomic { !has(w[x], COPIES) };
#else
    skip;
#endif
    d_step { assert(lives[x]); place[x] = NOWHERE };
    d_step {
        assert(lives[x]);
        assert(pins(w[x]) == 0);
        w[x] = w[x] & (~(RESIDENT | EVICTABLE))
    };
    /* The memory of the block. The source deletes it later; now shows more. */
    hasBlock[x] = false
}

/* Opening an accessor. The caller has a reference. opened: 1 with a block, 0 without. */
inline open(x)
{
    enter(ok);
    opened = 2;
    if
    :: ok ->
       do
       :: read(x, v);
          if
          :: has(v, LOCKED) && !OPEN_IGNORES_LOCKED -> break
          :: else ->
             if
             :: !has(v, RESIDENT) && !OPEN_IGNORES_RESIDENT -> break
             :: else ->
                exchange(x, v, (v + REFERENCE + PIN) & (~EVICTABLE), done);
                if
                :: done -> opened = 1; break
                :: else
                fi
             fi
          fi
       od;
       leave()
    :: else
    fi;
    if
    :: opened == 2 ->
       addReference(x);
       lockS();
       read(x, v);
       if
       :: has(v, RESIDENT) ->
          do
          :: exchange(x, v, (v + PIN) & (~EVICTABLE), done);
             if
             :: done -> opened = 1; break
             :: else -> read(x, v)
             fi
          od
       :: else -> opened = 0
       fi;
       unlockS();
       if
       :: opened == 0 -> dropReference(x)
       :: else
       fi
    :: else
    fi
}

/* Sets Used and pushes, if that is needed. again: the word has changed. */
inline pushUse(x)
{
    again = false;
    if
    :: !has(v, USED) ->
       exchange(x, v, v | USED, done);
#ifndef PUSH_AFTER_UNPIN
       if
       :: done -> push(x)
       :: else
       fi;
#endif
       again = true
    :: else
    fi
}

/* Closing it. */
inline close(x)
{
    beginUse(x, seen);
    enter(ok);
    isUse = false;
    mustPush = false;
    opened = 2;
    if
    :: ok ->
       do
       :: read(x, v);
          if
          :: has(v, LOCKED) && !CLOSE_IGNORES_LOCKED -> break
          :: else
          fi;
          if
          :: references(v) < 2 -> break
          :: else
          fi;
          if
          :: pins(v) > 1 ->
             exchange(x, v, v - REFERENCE - PIN, done);
             if
             :: done -> opened = 0; break
             :: else
             fi
          :: else ->
             if
             :: unpinsSlow && !CLOSE_IGNORES_FLAG -> break
             :: else
             fi;
             assert(!has(v, EVICTABLE));
#ifdef PUSH_AFTER_UNPIN
             mustPush = !has(v, USED);
             v2 = v;
             v = v | USED;
#else
             v2 = v;
             pushUse(x);
             if
             :: again -> goto repeat
             :: else
             fi;
#endif
#ifndef NO_STAMP
             d_step { clock++; now = clock };
             stamp[x] = now;
#endif
#ifdef NO_EXCHANGE_OF_USED
             d_step {
                 assert(lives[x]);
                 done = ((w[x] & (~USED)) == (v & (~USED)));
                 if
                 :: done -> w[x] = (w[x] - REFERENCE - PIN) | EVICTABLE
                 :: else
                 fi
             };
#else
             exchange(x, v2, (v - REFERENCE - PIN) | EVICTABLE, done);
#endif
             if
             :: done ->
                assert(!unpinsSlow);
                isUse = true;
                opened = 0;
                break
             :: else
             fi
          fi;
repeat:   skip
       od;
       if
       :: mustPush && isUse -> push(x)
       :: else
       fi;
       leave()
    :: else
    fi;
    if
    :: opened == 2 ->
       lockS();
       read(x, v);
       do
       :: pins(v) == 1 ->
          /* In the list before it counts as evictable. */
          d_step { clock++; stamp[x] = clock; placeStamp[x] = clock; place[x] = LISTED };
          exchange(x, v, (v - PIN) | EVICTABLE, done);
          if
          :: done -> isUse = true; break
          :: else -> read(x, v)
          fi
       :: else ->
          exchange(x, v, v - PIN, done);
          if
          :: done -> break
          :: else -> read(x, v)
          fi
       od;
       unpinsSlow = false;
       unlockS();
       endUse(x, seen, isUse);
       dropReference(x)
    :: else ->
       endUse(x, seen, isUse)
    fi
}

/* A query that counts as a use. The caller has a reference. */
inline use(x)
{
    beginUse(x, seen);
    enter(ok);
    isUse = false;
    opened = 2;
    if
    :: ok ->
       do
       :: read(x, v);
          if
          :: !has(v, RESIDENT) || !has(v, EVICTABLE) -> opened = 0; break
          :: else
          fi;
          if
          :: has(v, LOCKED) -> break
          :: else
          fi;
          pushUse(x);
          if
          :: again -> goto repeatUse
          :: else
          fi;
          d_step { clock++; now = clock };
          d_step { stamp[x] = (stamp[x] < now -> now : stamp[x]) };
#ifdef NO_EXCHANGE_OF_USED
          done = true;
#else
          exchange(x, v, v, done);
#endif
          if
          :: done -> isUse = true; opened = 0; break
          :: else
          fi;
repeatUse: skip
       od;
       leave()
    :: else
    fi;
    if
    :: opened == 2 ->
       lockS();
       d_step {
           assert(lives[x]);
           if
           :: has(w[x], EVICTABLE) ->
              clock++; stamp[x] = clock; placeStamp[x] = clock; place[x] = LISTED; isUse = true
           :: else
           fi
       };
       unlockS()
    :: else
    fi;
    endUse(x, seen, isUse)
}

/* Copying the bytes of a block. The caller has a reference. */
inline copy(x)
{
    enter(ok);
    opened = 0;
    if
    :: ok ->
       do
       :: read(x, v);
          if
          :: has(v, LOCKED) || !has(v, RESIDENT) || has(v, COPIES) -> break
          :: else
          fi;
          exchange(x, v, v + COPY, done);
          if
          :: done -> opened = 1; break
          :: else
          fi
       od;
       leave()
    :: else
    fi;
    if
    :: opened == 1 ->
       assert(hasBlock[x]);
       assert(hasBlock[x]);
       d_step { assert(lives[x]); w[x] = w[x] - COPY }
    :: else
    fi
}

/* Evicts one block, or finds that there is none. With S held. */
inline evict()
{
    gateClosed = false;
    drained = false;
    do
    :: if
       :: !drained -> drain()
       :: else
       fi;
       drained = true;
       /* The oldest of the list. Those that are not evictable are set aside. */
       e = FREE;
       do
       :: d_step {
              e = FREE;
              if
              :: place[0] == LISTED -> e = 0
              :: else
              fi;
              if
              :: HASHES == 2 && place[HASHES - 1] == LISTED &&
                 (e == FREE || placeStamp[HASHES - 1] < placeStamp[0]) -> e = HASHES - 1
              :: else
              fi
          };
          if
          :: e == FREE -> break
          :: else ->
             d_step {
                 assert(lives[e]);
                 if
                 :: !has(w[e], EVICTABLE) -> place[e] = ASIDE; e = FREE
                 :: else
                 fi
             };
             if
             :: e != FREE -> break
             :: else
             fi
          fi
       od;
       if
       :: e == FREE && !gateClosed && !EMPTY_WITH_OPEN_GATE ->
          closeGate();
          gateClosed = true;
          drained = false
       :: e == FREE && (gateClosed || EMPTY_WITH_OPEN_GATE) ->
          /* Right at one moment at least: no thread is inside, and S is held. */
          d_step {
              assert(!has(w[0], EVICTABLE) || !lives[0]);
              assert(!has(w[HASHES - 1], EVICTABLE) || !lives[HASHES - 1])
          };
          break
       :: else ->
          d_step {
              assert(lives[e]);
              done = (mutex[e] == FREE);
              if
              :: done -> mutex[e] = _pid
              :: else
              fi
          };
          if
          :: !done ->
             /* Becomes the newest. Counts as a use; gives up, so that the model is finite. */
             d_step {
                 clock++; stamp[e] = clock; placeStamp[e] = clock;
                 isAfter[0] = false; isAfter[HASHES - 1] = false
             };
             break
          :: else ->
             d_step { assert(lives[e]); w[e] = w[e] | LOCKED };
             read(e, v);
             if
             :: !has(v, EVICTABLE) || (has(v, USED) && !EVICT_IGNORES_USED) ||
                (placeStamp[e] >= drainBegan && !gateClosed && !NO_DRAIN_TIME) ->
                d_step { w[e] = w[e] & (~LOCKED) };
                d_step { assert(lives[e]); mutex[e] = FREE };
                drained = false;
                turns++;
                if
                :: turns == 2 && !gateClosed -> closeGate(); gateClosed = true
                :: else
                fi
             :: else ->
                /* The order: no evictable hash was last used before the last use of this one. */
                d_step {
                    if
                    :: HASHES == 2 ->
                       assert(!isAfter[e] || !lives[other(e)] || running[other(e)] > 0 ||
                              !has(w[other(e)], EVICTABLE) || has(w[other(e)], LOCKED))
                    :: else
                    fi
                };
                f = e;
                dismiss(f);
                d_step { assert(lives[e]); w[e] = w[e] & (~LOCKED) };
                d_step { assert(lives[e]); mutex[e] = FREE };
                break
             fi
          fi
       fi
    od;
    turns = 0;
    if
    :: gateClosed -> openGate()
    :: else
    fi
}

/* Forgets what no later step reads, so that fewer states differ. */
inline forget()
{
    d_step {
        v = 0; v2 = 0; dv = 0; ds = 0; now = 0; t = 0; taken = 0; g = 0; e = 0; f = 0; seen = 0;
        opened = 0; turns = 0; done = false; ok = false; last = false; again = false; isUse = false;
        mustPush = false; gateClosed = false; drained = false
    }
}

/* What every thread needs. */
#define LOCALS                                                                                     \
    short v; short v2; short dv; byte ds; byte now; byte t; byte taken; byte g; byte e; byte f;    \
    byte seen; byte opened; byte turns; bool done; bool ok; bool last; bool again; bool isUse;     \
    bool mustPush; bool gateClosed; bool drained; byte h; byte steps

/* A user of hash h with a reference: it reads, queries or copies, then drops the reference. */
proctype user(byte own; byte count; byte both)
{
    LOCALS;
    h = own;
    steps = 0;
    do
    :: steps < count ->
       steps++;
       if
       :: both && HASHES == 2 -> if :: h = 0 :: h = HASHES - 1 fi
       :: else
       fi;
       if
#ifdef WITH_OPEN
       :: open(h);
          if
          :: opened == 1 ->
             assert(hasBlock[h]);
             assert(lives[h] && has(w[h], RESIDENT) && !has(w[h], EVICTABLE) && hasBlock[h]);
             close(h)
          :: else
          fi
#endif
#ifdef WITH_USE
       :: use(h)
#endif
#ifdef WITH_COPY
       :: copy(h)
#endif
       fi;
       forget()
    :: steps == count -> break
    od;
#ifdef WITH_RELEASE
    dropReference(h);
#endif
}

/* A user that has opened hash 0 already, and only closes it. */
proctype closer()
{
    LOCALS;
    h = 0;
    close(h)
}

proctype evictor(byte count)
{
    LOCALS;
    steps = 0;
    do
    :: steps < count -> steps++; lockS(); evict(); unlockS(); forget()
    :: steps == count -> break
    od
}

/* A thread with the exclusive form of S, which frees every block or sets the flag. */
proctype locker(bool frees)
{
    LOCALS;
    h = 0;
    lockS();
    closeGate();
    if
    :: frees && pins(w[h]) == 0 && has(w[h], RESIDENT) -> dismiss(h)
    :: else -> unpinsSlow = true
    fi;
    assert(exclusive && entered == 0);
    openGate();
    unlockS()
}

/* Looks the hash up and drops it again; admits its block again if it is not resident. */
proctype finder(byte count)
{
    LOCALS;
    h = 0;
    steps = 0;
    do
    :: steps < count ->
       steps++;
       atomic { registry == FREE -> registry = _pid };
       d_step {
           last = registered[h];
           if
           :: last -> assert(lives[h]); v = w[h]; w[h] = w[h] + REFERENCE; assert(references(v) > 0)
           :: else
           fi
       };
       registry = FREE;
       if
       :: last ->
          if
          :: has(v, LOCKED) -> addReference(h); dropReference(h)
          :: else
          fi;
          lockS();
          read(h, v);
          if
          :: !has(v, RESIDENT) ->
             hasBlock[h] = true;
             d_step {
                 clock++; stamp[h] = clock; placeStamp[h] = clock; place[h] = LISTED;
                 assert(!has(w[h], COPIES))
             };
             do
             :: exchange(h, v, v | RESIDENT | EVICTABLE, done);
                if
                :: done -> break
                :: else -> read(h, v)
                fi
             od
          :: else
          fi;
          unlockS();
          dropReference(h)
       :: else
       fi;
       forget()
    :: steps == count -> break
    od
}

/* A host that holds a hash by tryLock() for a while. It has a reference. */
proctype holder()
{
    LOCALS;
    h = 0;
    d_step {
        done = (mutex[h] == FREE);
        if
        :: done -> mutex[h] = _pid
        :: else
        fi
    };
    if
    :: done ->
       d_step { assert(lives[h]); w[h] = w[h] | LOCKED };
       /* Frozen for all but the holder of S and the registry. */
       d_step { v = w[h] & (REFERENCES | RESIDENT | EVICTABLE | USED) };
       d_step {
           assert((w[h] & REFERENCES) >= (v & REFERENCES));
           assert(has(w[h], USED) <= has(v, USED))
       };
       d_step { w[h] = w[h] & (~LOCKED) };
       d_step { assert(lives[h]); mutex[h] = FREE }
    :: else
    fi;
    dropReference(h)
}

init
{
    atomic {
        byte i = 0;
        do
        :: i < HASHES ->
           w[i] = RESIDENT | EVICTABLE | REFERENCES_OF_EACH;
           place[i] = LISTED;
           clock++;
           stamp[i] = clock;
           placeStamp[i] = clock;
           lives[i] = true;
           registered[i] = true;
           hasBlock[i] = true;
           mutex[i] = FREE;
           i++
        :: i == HASHES -> break
        od;
#ifdef PINNED_ASIDE
        w[0] = (w[0] + PIN + REFERENCE) & (~EVICTABLE);
        place[0] = ASIDE;
#endif
        RUN_THREADS
    }
}
