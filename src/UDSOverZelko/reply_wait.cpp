#include "UDSOverZelko/reply_wait.h"

#include <time.h>

#include "udsoverzelko.h"

int reply_wait_init(ReplyWait *wait) {
    wait->reply = nullptr;
    wait->parsed = nullptr;
    if (pthread_mutex_init(&wait->lock, nullptr) != 0)
        return -1;
    if (pthread_cond_init(&wait->cond, nullptr) != 0) {
        pthread_mutex_destroy(&wait->lock);
        return -1;
    }
    return 0;
}

void reply_wait_destroy(ReplyWait *wait) {
    reply_slot_clear(wait);
    pthread_cond_destroy(&wait->cond);
    pthread_mutex_destroy(&wait->lock);
}

void reply_slot_clear(ReplyWait *wait) {
    free(wait->reply);
    wait->reply = nullptr;
    json_object_put(wait->parsed);
    wait->parsed = nullptr;
}

bool reply_slot_take(ReplyWait *wait, TextPtr *text, JsonPtr *json) {
    if (wait->reply == nullptr)
        return false;
    text->reset(wait->reply);
    json->reset(wait->parsed != nullptr ? wait->parsed : json_tokener_parse(wait->reply));
    wait->reply = nullptr;
    wait->parsed = nullptr;
    return true;
}

void reply_wait_discard(ReplyWait *wait) {
    pthread_mutex_lock(&wait->lock);
    reply_slot_clear(wait);
    pthread_mutex_unlock(&wait->lock);
}

void reply_wait_deliver(ReplyWait *wait, char *text, JsonPtr parsed) {
    if (text == nullptr)
        return;
    pthread_mutex_lock(&wait->lock);
    reply_slot_clear(wait);
    wait->reply = text;
    wait->parsed = parsed.release();
    pthread_mutex_unlock(&wait->lock);
    // Signalled after unlocking, so that the woken caller does not at once
    // block again on the lock that this thread still holds. The caller
    // re-checks the slot under the lock, so no wake-up is lost.
    pthread_cond_signal(&wait->cond);
}

bool reply_wait_take(ReplyWait *wait, TextPtr *text, JsonPtr *json) {
    struct timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += UOZ_REPLY_TIMEOUT_SECONDS;
    pthread_mutex_lock(&wait->lock);
    // Loops over spurious wake-ups until a message is there or the time is up.
    while (wait->reply == nullptr) {
        if (pthread_cond_timedwait(&wait->cond, &wait->lock, &deadline) != 0)
            break;
    }
    bool taken = reply_slot_take(wait, text, json);
    pthread_mutex_unlock(&wait->lock);
    return taken;
}
