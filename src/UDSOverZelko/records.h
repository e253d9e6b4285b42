// Records shared by the library core: the handle, ECU records, reply waits,
// the calling thread's last-error text and the version banner.
#ifndef UOZ_CORE_RECORDS_H
#define UOZ_CORE_RECORDS_H

#include <json-c/json.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>

#include <memory>

#include "kt5Utils/kt5_json.h"
#include "logging/uoz_log.h"
#include "udsoverzelko.h"

struct BusConnection;

// Texts fixed at build time for the version banner; both are empty.
#define UOZ_VERSION_TEXT ""
#define UOZ_BUILD_TEXT ""

#define REPLY_TIMEOUT_SECONDS UOZ_REPLY_TIMEOUT_SECONDS
#define REPLY_ID_LENGTH 24
#define UOZ_AGENT_ADDRESS "/ZDATA/UDS"
#define UOZ_POLICY_AGENT_GROUP "policy-agent"
#define UOZ_LAST_ERROR_SIZE 256

enum TransportType {
    TRANSPORT_CAN = 0,
    TRANSPORT_CANFD = 1,
    TRANSPORT_DOIP = 2,
    TRANSPORT_IOC = 3,
};

// Owns a malloc'd text.
struct FreeText {
    void operator()(char *text) const { free(text); }
};
using TextPtr = std::unique_ptr<char, FreeText>;

// Where one waiting caller meets the bus delivery thread. `lock` guards
// `reply` and `parsed`.
struct ReplyWait {
    pthread_mutex_t lock;
    pthread_cond_t cond;
    char *reply;  // heap text of the last delivered, unconsumed message, or NULL
    // The same message as the delivery thread parsed it (owned), so that the
    // waiting caller need not parse it again; NULL when none was kept.
    json_object *parsed;
};

// One configured ECU (or the broadcast record of target address -1).
struct EcuConfig {
    TransportType type;
    int32_t target_address;
    char *name;  // NULL in the broadcast record
    // Transport texts as written in the configuration file; NULL when the
    // transport has no such parameter.
    char *ifname;       // CAN
    char *func_addr;    // CAN, IOC
    char *phy_req_id;   // CAN, IOC
    char *phy_resp_id;  // CAN, IOC
    char *st_min;       // CAN ("0x00" by default)
    char *bsize;        // CAN ("0x00" by default)
    char *gw_ip;        // DOIP
    char *sa;           // DOIP
    char *ta;           // DOIP
    char *bus_id;       // IOC
    ReplyWait reply_wait;
    json_object *ecu_version;  // copy of "ecu_version", or NULL; guarded by reply_wait.lock
                               // while a version query derives its "j1939" object
    EcuConfig *next;
};

struct UDSOverZelkoHandle {
    BusConnection *bus;
    EcuConfig *ecus;           // configured ECUs in file order, NULL when none
    EcuConfig *broadcast_ecu;  // record of target address -1
    char *config_path;         // copy of the configuration path
    ReplyWait consent_wait;    // external-consent answers
};

// The calling thread's last-error text (one buffer per thread).
extern thread_local char uoz_last_error[UOZ_LAST_ERROR_SIZE];

// Copy a constant text into uoz_last_error and log it at ERR.
#define UOZ_SET_ERROR(text)                            \
    do {                                               \
        uoz_set_last_error(text);                      \
        UOZ_DBGLOG(UOZ_LOG_ERR, "%s", uoz_last_error); \
    } while (0)

// Format into uoz_last_error (at most 255 characters) and log it at ERR.
#define UOZ_SET_ERRORF(...)                            \
    do {                                               \
        uoz_format_last_error(__VA_ARGS__);            \
        UOZ_DBGLOG(UOZ_LOG_ERR, "%s", uoz_last_error); \
    } while (0)

void uoz_set_last_error(const char *text);
void uoz_format_last_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Log the version banner at ERR.
#define UOZ_LOG_BANNER() \
    UOZ_DBGLOG(UOZ_LOG_ERR, "UDSOverZelko Library Version: %s-%s", UOZ_VERSION_TEXT, UOZ_BUILD_TEXT)

// Create lock and cond of a reply wait (slot empty); 0 on success.
int reply_wait_init(ReplyWait *wait);
// Free a pending reply and destroy lock and cond.
void reply_wait_destroy(ReplyWait *wait);
// With wait->lock held: free what the slot holds and empty it.
void reply_slot_clear(ReplyWait *wait);
// With wait->lock held: move the slot's message out and empty the slot. The
// JSON is parsed from the text when the delivery thread kept none; it is NULL
// when the text is no JSON. False when the slot was empty.
bool reply_slot_take(ReplyWait *wait, TextPtr *text, JsonPtr *json);
// With wait->lock held: waits up to REPLY_TIMEOUT_SECONDS (realtime clock)
// for a message, then takes it as reply_slot_take does; false on time-out.
bool reply_slot_wait(ReplyWait *wait, TextPtr *text, JsonPtr *json);

// Release everything the handle owns except the bus connection, then the
// handle itself: the body of UDSOverZelko_Terminate after the bus stop.
// Logs the version banner first. NULL is accepted.
void release_handle(UDSOverZelkoHandle *handle);
// The same without the banner.
void free_handle(UDSOverZelkoHandle *handle);

// Heap copy of a text with malloc, NULL for NULL or when memory runs out.
char *uoz_strdup(const char *text);

#endif
