// The last-error text, reply waits, the handle teardown and the release
// helpers of the result records.
#include "UDSOverZelko/records.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "UDSOverZelko/config.h"

thread_local char uoz_last_error[UOZ_LAST_ERROR_SIZE];

void uoz_set_last_error(const char *text) {
    snprintf(uoz_last_error, sizeof(uoz_last_error), "%s", text != nullptr ? text : "");
}

void uoz_format_last_error(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(uoz_last_error, sizeof(uoz_last_error), format, args);
    va_end(args);
}

char *uoz_strdup(const char *text) {
    if (text == nullptr)
        return nullptr;
    size_t size = strlen(text) + 1;
    auto *copy = static_cast<char *>(malloc(size));
    if (copy != nullptr)
        memcpy(copy, text, size);
    return copy;
}

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

bool reply_slot_wait(ReplyWait *wait, TextPtr *text, JsonPtr *json) {
    struct timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += REPLY_TIMEOUT_SECONDS;
    // Loops over spurious wake-ups until a message is there or the time is up.
    while (wait->reply == nullptr) {
        if (pthread_cond_timedwait(&wait->cond, &wait->lock, &deadline) != 0)
            break;
    }
    return reply_slot_take(wait, text, json);
}

void reply_wait_destroy(ReplyWait *wait) {
    reply_slot_clear(wait);
    pthread_cond_destroy(&wait->cond);
    pthread_mutex_destroy(&wait->lock);
}

namespace {

void release_ecu_record(EcuConfig *record) {
    free_ecu_config(record);
    reply_wait_destroy(&record->reply_wait);
    free(record);
}

}  // namespace

void release_handle(UDSOverZelkoHandle *handle) {
    UOZ_LOG_BANNER();
    free_handle(handle);
}

void free_handle(UDSOverZelkoHandle *handle) {
    if (handle == nullptr)
        return;
    while (handle->ecus != nullptr) {
        EcuConfig *next = handle->ecus->next;
        release_ecu_record(handle->ecus);
        handle->ecus = next;
    }
    if (handle->broadcast_ecu != nullptr) {
        release_ecu_record(handle->broadcast_ecu);
        handle->broadcast_ecu = nullptr;
    }
    free(handle->config_path);
    reply_wait_destroy(&handle->consent_wait);
    free(handle);
}

void UDSOverZelko_FreeDTCBuffer(DTCBuffer *buffer) {
    if (buffer == nullptr)
        return;
    if (buffer->entries != nullptr) {
        for (int32_t i = 0; i < buffer->count; ++i) {
            DTCBufferEntry *entry = buffer->entries[i];
            if (entry == nullptr)
                continue;
            free(entry->data);
            free(entry->ecu_name);
            free(entry);
        }
        free(buffer->entries);
    }
    buffer->entries = nullptr;
    buffer->count = 0;
}

void UDSOverZelko_FreeCommandResponse(CommandResponse *response) {
    if (response == nullptr)
        return;
    free(response->body_text);
    response->body_text = nullptr;
    response->status = 0;
}
