// Where one waiting caller meets the bus delivery thread: a one-message slot
// under a lock, with a condition variable that announces a delivery.
#ifndef UOZ_CORE_REPLY_WAIT_H
#define UOZ_CORE_REPLY_WAIT_H

#include <json-c/json.h>
#include <pthread.h>
#include <stdlib.h>

#include <memory>

#include "kt5Utils/kt5_json.h"

// Owns a malloc'd text.
struct FreeText {
    void operator()(char *text) const { free(text); }
};
using TextPtr = std::unique_ptr<char, FreeText>;

// `lock` guards `reply` and `parsed`.
struct ReplyWait {
    pthread_mutex_t lock;
    pthread_cond_t cond;
    char *reply;  // heap text of the last delivered, unconsumed message, or NULL
    // The same message as the delivery thread parsed it (owned), so that the
    // waiting caller need not parse it again; NULL when none was kept.
    json_object *parsed;
};

// Create lock and cond of a reply wait (slot empty); 0 on success.
int reply_wait_init(ReplyWait *wait);
// Free a pending reply and destroy lock and cond.
void reply_wait_destroy(ReplyWait *wait);
// Takes the lock, empties the slot and releases the lock.
void reply_wait_discard(ReplyWait *wait);
// Stores a delivered text (taken over; NULL is ignored) with the JSON parsed
// from it, replacing a message that nobody took, and wakes the waiter.
void reply_wait_deliver(ReplyWait *wait, char *text, JsonPtr parsed);
// Waits up to UOZ_REPLY_TIMEOUT_SECONDS (realtime clock) for a message, then
// takes it out of the slot as reply_slot_take does; false on time-out.
bool reply_wait_take(ReplyWait *wait, TextPtr *text, JsonPtr *json);

// With wait->lock held: free what the slot holds and empty it.
void reply_slot_clear(ReplyWait *wait);
// With wait->lock held: move the slot's message out and empty the slot. The
// JSON is parsed from the text when the delivery thread kept none; it is NULL
// when the text is no JSON. False when the slot was empty.
bool reply_slot_take(ReplyWait *wait, TextPtr *text, JsonPtr *json);

#endif
