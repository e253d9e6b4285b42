// Records shared by the library core: the handle, ECU records, the calling
// thread's last-error text and the version banner.
#ifndef UOZ_CORE_RECORDS_H
#define UOZ_CORE_RECORDS_H

#include <json-c/json.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>

#include <memory>

#include "UDSOverZelko/reply_wait.h"
#include "kt5Utils/kt5_json.h"
#include "kt5Utils/text.h"
#include "logging/uoz_log.h"
#include "udsoverzelko.h"

struct BusConnection;

// Texts fixed at build time for the version banner; both are empty.
#define UOZ_VERSION_TEXT ""
#define UOZ_BUILD_TEXT ""

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

// The CAN and IOC records by their "phy-req-id" texts, so that decoding a
// reply costs the same per element however many ECUs are configured.
struct RequestIdIndex;

struct UDSOverZelkoHandle {
    BusConnection *bus;
    EcuConfig *ecus;              // configured ECUs in file order, NULL when none
    EcuConfig *broadcast_ecu;     // record of target address -1
    char *config_path;            // copy of the configuration path
    ReplyWait consent_wait;       // external-consent answers
    RequestIdIndex *request_ids;  // built once the configuration is loaded
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

// A zero-filled handle with its consent slot ready, or NULL when memory or
// the slot's lock cannot be had.
UDSOverZelkoHandle *new_handle();
// Release everything the handle owns except the bus connection, which must
// have been stopped, then the handle itself. NULL is accepted.
void release_handle(UDSOverZelkoHandle *handle);

// The first configured ECU (never the broadcast record) with this address.
EcuConfig *find_ecu(UDSOverZelkoHandle *handle, int32_t target_address);

// Builds handle->request_ids from handle->ecus; false when memory runs out.
bool index_request_ids(UDSOverZelkoHandle *handle);
// The first CAN or IOC record (configuration order) whose "phy-req-id" text is
// request_id (exact comparison), or NULL; NULL before the index is built.
const EcuConfig *find_ecu_by_request_id(const UDSOverZelkoHandle *handle, const char *request_id);

// One transport parameter: its key in the configuration file and in the
// query's transport block, the record's text, the message of a configuration
// entry that lacks it (NULL: optional, "0x00" by default) and the message of a
// block that cannot hold it.
struct TransportParam {
    const char *key;
    char *EcuConfig::*field;
    const char *missing;
    const char *not_added;
};
// The parameters of one transport, in the order of its block.
struct TransportParams {
    const TransportParam *const *first;
    const TransportParam *const *last;
    const TransportParam *const *begin() const { return first; }
    const TransportParam *const *end() const { return last; }
};
// The key of a transport's block in the configuration and in the query
// ("can", "canfd", "doip", "ioc"); NULL for a type outside 0..3.
const char *transport_block_key(TransportType type);
// The parameters of CAN, DOIP and IOC records; none for CANFD.
TransportParams transport_params(TransportType type);

#endif
