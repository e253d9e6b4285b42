/*
 * libudsoverzelko: UDS (ISO 14229) diagnostics through a diagnostic agent on an
 * authenticated message bus.
 *
 * The application describes each request (read DTCs, clear DTCs, read an ECU's
 * version, run a remote command document, give OTA campaign consent); the
 * library sends it as a JSON query to the diagnostic agent "/ZDATA/UDS", waits
 * for the agent's reply (at most UOZ_REPLY_TIMEOUT_SECONDS) and decodes it.
 *
 * Threads: the library starts no thread of its own; its bus library runs one
 * delivery thread per handle. Every operation that takes a handle may be called
 * from any thread, concurrently with operations on other ECUs. At most one
 * request per ECU (and one with target address -1) may be outstanding at a
 * time: a second concurrent request to the same ECU may take the first one's
 * reply. UDSOverZelko_Init and UDSOverZelko_Terminate must not overlap any
 * other call on the same handle.
 *
 * Memory: everything the library hands to the caller is allocated with
 * malloc(); the caller releases it with free() or with the release helpers
 * UDSOverZelko_FreeDTCBuffer and UDSOverZelko_FreeCommandResponse.
 *
 * Errors: operations return int codes (UOZ_OK and the UOZ_ERR_* values below,
 * or a ConsentResult). The text of the latest failure of the calling thread is
 * logged at level UOZ_LOG_ERR on standard output.
 *
 * ABI: the SONAME is libudsoverzelko.so.<major>; the major number changes
 * whenever a record's layout or a function's signature changes or a name is
 * removed. Adding functions or result codes keeps it.
 */
#ifndef UDSOVERZELKO_H
#define UDSOVERZELKO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define UOZ_EXTERN __attribute__((visibility("default")))
#else
#define UOZ_EXTERN
#endif

/* ------------------------------------------------------------------------ */
/* Result codes                                                              */
/* ------------------------------------------------------------------------ */

#define UOZ_OK 0
/** General failure: bad argument, unknown ECU, unusable reply. */
#define UOZ_ERR_GENERAL (-1)
/** Failure inside the request/reply exchange (query not built, wrong reply). */
#define UOZ_ERR_EXCHANGE (-2)
/** The ReadDTCInformation subfunction is not supported. */
#define UOZ_ERR_UNSUPPORTED_SUBFUNCTION (-3)
/** No reply within UOZ_REPLY_TIMEOUT_SECONDS. */
#define UOZ_ERR_TIMEOUT (-5)
/** The operation is not supported. */
#define UOZ_ERR_NOT_SUPPORTED (-9)
/** The remote command is outside its validity period (or its times are unreadable). */
#define UOZ_ERR_VALIDITY (-10)

/** Seconds a request waits for its reply. */
#define UOZ_REPLY_TIMEOUT_SECONDS 10

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

/** The library context; opaque. Created by UDSOverZelko_Init, released by UDSOverZelko_Terminate.
 */
typedef struct UDSOverZelkoHandle UDSOverZelkoHandle;

/**
 * Broker settings, filled by the application. Read only during
 * UDSOverZelko_Init; the library keeps no pointer into it.
 */
typedef struct BrokerConfig {
    const char *broker_ip;    /**< broker host name or address; required (may be empty) */
    int32_t port;             /**< broker TCP port */
    const char *node_address; /**< the node's address; required (not null), otherwise unused */
    const char *cert_path; /**< identity directory: private.pem, cert.pem; ../ca/ca.pem beside it */
    uint32_t reserved;     /**< never read */
    int32_t debug_level;   /**< becomes uoz_dbg_level */
    uint32_t bus_option;   /**< handed to the bus connection, not read */
} BrokerConfig;

/** One ECU's answer to a DTC read (or the version text of a version read). */
typedef struct DTCBufferEntry {
    uint8_t *data;          /**< length + 1 bytes (malloc), always followed by a zero byte */
    int32_t length;         /**< number of data bytes */
    int32_t target_address; /**< configured ECU matched by "phy-req-id", 0 when none */
    char *ecu_name;         /**< copy of that ECU's name (malloc), NULL when none matched */
} DTCBufferEntry;

/**
 * Result of the DTC reads. The caller provides the record; the library fills
 * entries (malloc'd array of count pointers, each entry malloc'd). A read
 * overwrites entries and count without looking at them: release a filled
 * buffer (UDSOverZelko_FreeDTCBuffer) before passing it again.
 */
typedef struct DTCBuffer {
    DTCBufferEntry **entries;
    int32_t count;
} DTCBuffer;

/** Result of ClearDTC and remote commands: the reply's "body" object as JSON text. */
typedef struct CommandResponse {
    char *body_text; /**< malloc'd JSON text; the caller frees it */
    int32_t status;  /**< 0 when body_text was set */
} CommandResponse;

/** Kind of consent given by UDSOverZelkoSendExternalConsent. */
typedef enum ConsentType {
    CONSENT_DOWNLOAD = 0,
    CONSENT_INSTALL = 1,
} ConsentType;

/** Result of UDSOverZelkoSendExternalConsent. */
typedef enum ConsentResult {
    CONSENT_ACCEPTED = 1,         /**< "consent-status" is "accepted" (any case) */
    CONSENT_REJECTED = 2,         /**< any other status text */
    CONSENT_INVALID_HANDLE = 3,   /**< handle is NULL */
    CONSENT_INVALID_TYPE = 4,     /**< consent type is neither 0 nor 1 */
    CONSENT_NO_REPLY = 5,         /**< no answer within UOZ_REPLY_TIMEOUT_SECONDS */
    CONSENT_NO_STATUS = 6,        /**< the answer has no string "body"."consent-status" */
    CONSENT_INVALID_CAMPAIGN = 7, /**< campaign_id is NULL; nothing was sent */
} ConsentResult;

/* ------------------------------------------------------------------------ */
/* Logging                                                                   */
/* ------------------------------------------------------------------------ */

#define UOZ_LOG_FATAL (-1)
#define UOZ_LOG_ERR 0
#define UOZ_LOG_WARN 1
#define UOZ_LOG_INFO 2
#define UOZ_LOG_DBG 3
#define UOZ_LOG_D2BG 4
#define UOZ_LOG_D3BG 5

/**
 * Log threshold: a statement at level L is written when uoz_dbg_level >= L.
 * Initially 0 (errors only); UDSOverZelko_Init sets it from debug_level.
 * A plain int, read and written without synchronisation.
 */
UOZ_EXTERN extern int uoz_dbg_level;

/**
 * Write one log line to standard output:
 * "[MM-DD:HH:MM:SS.mmm] LABEL file:line message\n" (UTC time stamp, coloured
 * label, base name of file). One trailing newline of the message is dropped;
 * messages of 1020 characters or more are cut and end in "...". Lines at
 * UOZ_LOG_INFO and more severe are flushed at once. Does not consult
 * uoz_dbg_level. Thread-safe; allocates nothing.
 */
UOZ_EXTERN void uoz_dbglog(int level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/** Log through uoz_dbglog when uoz_dbg_level admits the level; arguments are not evaluated
 * otherwise. */
#define UOZ_DBGLOG(level, ...)                                    \
    do {                                                          \
        if (uoz_dbg_level >= (level)) {                           \
            uoz_dbglog((level), __FILE__, __LINE__, __VA_ARGS__); \
        }                                                         \
    } while (0)

/* ------------------------------------------------------------------------ */
/* Start and stop                                                            */
/* ------------------------------------------------------------------------ */

/**
 * Load the ECU configuration file at config_path, connect to the broker at
 * "tcp://<broker_ip>:<port>" (MQTT 5 over TLS) with the identity in
 * broker->cert_path, and return the library context.
 *
 * Returns the handle, or NULL when: broker or config_path is NULL ("Invalid uds
 * config or broker configuration provided"); broker_ip, cert_path or
 * node_address is NULL ("Invlid broker IP", "Invlaid Certpath", "Invlaid node
 * Address"); memory runs out; the configuration file is missing, not JSON or
 * has no "configs" array ("Could not parse configuration"); or the identity
 * cannot be loaded or the bus client not started. Entries of the configuration
 * that are invalid are dropped with a message; the load still succeeds.
 * The broker need not be reachable yet: the connection is retried in the
 * background.
 *
 * Blocks only while reading files. Not thread-safe with respect to the
 * handle it creates. Several handles may live at once; uoz_dbg_level is
 * process-wide. Release the handle with UDSOverZelko_Terminate.
 */
UOZ_EXTERN UDSOverZelkoHandle *UDSOverZelko_Init(const BrokerConfig *broker,
                                                 const char *config_path);

/**
 * Stop the bus connection and release the handle and everything it owns.
 * NULL is accepted. Always returns 0. No other call on the handle may be
 * running; the handle is invalid afterwards.
 */
UOZ_EXTERN int UDSOverZelko_Terminate(UDSOverZelkoHandle *handle);

/**
 * Target address of the first configured ECU whose name equals name, ignoring
 * the case of ASCII letters (whatever the locale); -1 when there is none, or
 * when handle or name is NULL.
 * Thread-safe; logs nothing.
 */
UOZ_EXTERN int UDSOverZelkoGetTargetAddressFromECUName(UDSOverZelkoHandle *handle,
                                                       const char *name);

/**
 * Name of the first configured ECU with this target address, or NULL when there
 * is none or handle is NULL. The broadcast address -1 names no ECU of its own:
 * it finds only an entry of the configuration file whose address reads as -1
 * (such as "FFFFFFFF"). The text belongs to the handle and stays valid until
 * UDSOverZelko_Terminate; do not free it.
 */
UOZ_EXTERN const char *UDSOverZelkoGetECUNameFromTargetAddress(UDSOverZelkoHandle *handle,
                                                               int target_address);

/* ------------------------------------------------------------------------ */
/* ReadDTCInformation (UDS 0x19)                                             */
/* ------------------------------------------------------------------------ */

/**
 * Read DTC information with a status-mask or parameterless report.
 *
 * subfunction: 0x01-0x06, 0x09-0x16 are supported. status_mask: bits 0-7.
 * target_address: a configured ECU, or -1 for every CAN and IOC ECU.
 * dtc_buffer: filled with one entry per answering ECU; the caller owns what it
 * points to afterwards (UDSOverZelko_FreeDTCBuffer).
 *
 * Returns the total number of data bytes (>= 0); UOZ_ERR_UNSUPPORTED_SUBFUNCTION
 * (-3) for a refused subfunction (nothing sent); UOZ_ERR_GENERAL (-1) when
 * handle or dtc_buffer is NULL, the ECU is unknown, no reply came within
 * UOZ_REPLY_TIMEOUT_SECONDS, or the reply was unusable. Blocks up to 10 s.
 */
UOZ_EXTERN int UDSOverZelko_ReadDTCInfo(UDSOverZelkoHandle *handle, int32_t target_address,
                                        uint32_t subfunction, uint32_t status_mask,
                                        DTCBuffer *dtc_buffer);

/**
 * Read DTC information with a report that takes a DTC number (low 24 bits)
 * and/or a record number (0x04, 0x05, 0x06, 0x09, 0x10, 0x16). Results and
 * ownership as UDSOverZelko_ReadDTCInfo.
 */
UOZ_EXTERN int UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(
    UDSOverZelkoHandle *handle, int32_t target_address, uint32_t subfunction, uint32_t dtc_number,
    uint8_t record_number, DTCBuffer *dtc_buffer);

/* ------------------------------------------------------------------------ */
/* ECU version                                                               */
/* ------------------------------------------------------------------------ */

/**
 * Read the ECU's version text as its "ecu_version" configuration describes.
 * Copies min(text length, version_buffer_size) bytes into version_buffer and
 * writes no terminator: zero the buffer and pass one byte less for a C string.
 *
 * Returns 0; -1 when version_buffer_size is 0 ("versionBufferSize is zero"),
 * version_buffer is NULL ("versionBuffer is NULL") or handle is NULL;
 * -2 when the query cannot be built (unknown ECU, CANFD ECU, ECU without
 * version configuration, -1) or the reply did not answer it; -5 on time-out.
 * The buffer is untouched on failure. Blocks up to 10 s.
 */
UOZ_EXTERN int UDSOverZelko_ReadECUVersionInformation(UDSOverZelkoHandle *handle,
                                                      int32_t target_address, char *version_buffer,
                                                      uint32_t version_buffer_size);

/* ------------------------------------------------------------------------ */
/* ClearDTC (UDS 0x14, run by the agent as "ClearDTC_Routine")               */
/* ------------------------------------------------------------------------ */

/**
 * Clear DTCs of group_of_dtc (0xFFFFFF = all groups) on one ECU, or on every
 * CAN and IOC ECU with target_address -1.
 *
 * Returns 0 and sets response->body_text (malloc'd, the reply's "body" as JSON
 * text) and response->status = 0; -1 when handle or response is NULL, the ECU
 * is unknown, or the reply is unusable; -5 on time-out. response is written
 * only on success. Blocks up to 10 s.
 */
UOZ_EXTERN int UDSOverZelkoClearDTC(UDSOverZelkoHandle *handle, int32_t target_address,
                                    uint32_t group_of_dtc, CommandResponse *response);

/* ------------------------------------------------------------------------ */
/* Remote commands                                                           */
/* ------------------------------------------------------------------------ */

/**
 * Run a remote command document (NUL-terminated JSON text; size must not be 0)
 * on the ECU its "ecu"."ServerAddress" names (hexadecimal, read with strtoul;
 * the low 32 bits are the signed target address, so FFFFFFFF is -1, every CAN
 * and IOC ECU). "predefined" commands name
 * routines of the configuration file's "pre-defined-routines" (read anew at
 * every command; a name that matches none chooses nothing); any other command
 * makes the whole "commands" list a "custom_commands" routine with the
 * document's "security_access".
 *
 * Returns 0 with response filled as for ClearDTC; -1 for bad arguments (handle,
 * document or response NULL, size 0), a document that is not JSON or lacks
 * "commands" or "ecu"."ServerAddress", an unknown ECU, or an unusable reply;
 * -10 when "diagnostic_period" is not current (times read as UTC) or
 * unreadable (nothing sent); -5 on time-out. Blocks up to 10 s.
 */
UOZ_EXTERN int UDSOverZelko_ExecuteRemoteCommand(UDSOverZelkoHandle *handle, const char *document,
                                                 uint32_t size, CommandResponse *response);

/** Not supported: reads no argument, sends nothing, always returns UOZ_ERR_NOT_SUPPORTED (-9). */
UOZ_EXTERN int UDSOverZelko_ExecuteRemoteCommand_Async(UDSOverZelkoHandle *handle,
                                                       const char *document, uint32_t size,
                                                       CommandResponse *response);

/* ------------------------------------------------------------------------ */
/* External consent                                                          */
/* ------------------------------------------------------------------------ */

/**
 * Send download (CONSENT_DOWNLOAD) or install (CONSENT_INSTALL) consent for a
 * campaign to the bus group "policy-agent" and wait for its answer. An answer
 * left over from an earlier request is discarded before sending.
 *
 * Returns a ConsentResult: 1 accepted, 2 rejected, 3 NULL handle, 4 bad type,
 * 5 no answer within 10 s, 6 answer without "consent-status", 7 NULL
 * campaign_id. Blocks up to 10 s. Answers carry no request identifier, so
 * concurrent consent requests on one handle may take each other's answers.
 */
UOZ_EXTERN int UDSOverZelkoSendExternalConsent(UDSOverZelkoHandle *handle, int32_t consent_type,
                                               const char *campaign_id);

/* ------------------------------------------------------------------------ */
/* Release helpers                                                           */
/* ------------------------------------------------------------------------ */

/** Free everything a DTC read put into buffer and zero it. NULL is accepted. */
UOZ_EXTERN void UDSOverZelko_FreeDTCBuffer(DTCBuffer *buffer);

/** Free response->body_text and zero the record. NULL is accepted. */
UOZ_EXTERN void UDSOverZelko_FreeCommandResponse(CommandResponse *response);

#ifdef __cplusplus
}
#endif

#endif /* UDSOVERZELKO_H */
