// The query message: envelope, body, transport blocks and reply identifiers.
#include "UDSOverZelko/query.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kt5Utils/kt5_json.h"
#include "kt5Utils/locks.h"

namespace {

bool add_string(json_object *object, const char *key, const char *text) {
    return kt5_json_add(object, key, json_object_new_string(text != nullptr ? text : ""));
}

json_object *build_block(const EcuConfig *record, const char *create_failure) {
    JsonPtr block(json_object_new_object());
    if (!block) {
        UOZ_SET_ERROR(create_failure);
        return nullptr;
    }
    for (const TransportParam *param : transport_params(record->type)) {
        if (!add_string(block.get(), param->key, record->*param->field)) {
            UOZ_SET_ERROR(param->not_added);
            return nullptr;
        }
    }
    return block.release();
}

json_object *build_ecu_block(const EcuConfig *record) {
    switch (record->type) {
        case TRANSPORT_CAN:
        case TRANSPORT_IOC:
            return build_block(record, "Could not create new JSON object");
        case TRANSPORT_DOIP:
            return build_block(record, "Could not create new JSON Message");
        case TRANSPORT_CANFD:
            break;
    }
    return nullptr;
}

json_object *build_broadcast_blocks(UDSOverZelkoHandle *handle) {
    json_object *blocks = json_object_new_array();
    if (blocks == nullptr)
        return nullptr;
    for (EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
        if (record->type != TRANSPORT_CAN && record->type != TRANSPORT_IOC)
            continue;
        // A block that cannot be built stands as JSON null.
        json_object_array_add(blocks, build_ecu_block(record));
    }
    return blocks;
}

// Replaces a CAN record's stored version description by its "j1939" object
// with the record's "ifname" added, once; later queries send it unchanged.
// Runs under the record's lock so that concurrent version reads of one ECU
// never see a half-replaced description.
bool derive_j1939_version(EcuConfig *record) {
    MutexHold hold(&record->reply_wait.lock);
    UOZ_DBGLOG(UOZ_LOG_INFO, "%s\n", json_object_to_json_string(record->ecu_version));
    if (!kt5_json_has(record->ecu_version, "j1939", nullptr))
        return true;
    json_object *j1939 = kt5_json_borrow(record->ecu_version, json_type_object, "j1939", nullptr);
    JsonPtr derived(kt5_json_copy(j1939));
    if (!derived) {
        UOZ_SET_ERROR("Invalid object");
        return false;
    }
    if (!add_string(derived.get(), "ifname", record->ifname)) {
        UOZ_SET_ERROR("Unable to add 'ifname' into version JSON message");
        return false;
    }
    json_object_put(record->ecu_version);
    record->ecu_version = derived.release();
    return true;
}

json_object *copy_version(EcuConfig *record) {
    MutexHold hold(&record->reply_wait.lock);
    return kt5_json_copy(record->ecu_version);
}

bool add_version(json_object *body, EcuConfig *record) {
    // A record without version configuration (also the broadcast record)
    // cannot be asked for its version.
    if (record->ecu_version == nullptr) {
        UOZ_SET_ERROR("No version information configured for this ECU");
        return false;
    }
    if (record->type == TRANSPORT_CAN && !derive_j1939_version(record))
        return false;
    if (!kt5_json_add(body, "version", copy_version(record))) {
        UOZ_SET_ERROR("Could not add 'version' to JSON");
        return false;
    }
    return true;
}

// What tells the bodies of the query kinds apart besides their request:
// how "targetAddress" is written and how a missing block or mode reads.
struct BodyTexts {
    const char *target_address;
    const char *no_transport;
    const char *no_mode;
};

// The members every query body starts with: "mode", "targetAddress" and the
// transport block under its key, each addition checked. *record receives the
// addressed record whenever one was found.
json_object *build_body(UDSOverZelkoHandle *handle, int32_t target_address, const BodyTexts &texts,
                        EcuConfig **record) {
    EcuConfig *addressed = nullptr;
    JsonPtr block(build_transport_block(handle, target_address, &addressed));
    if (record != nullptr)
        *record = addressed;
    if (!block) {
        UOZ_SET_ERROR(texts.no_transport);
        return nullptr;
    }
    const char *key = nullptr;
    JsonPtr mode(transport_mode_name(addressed->type, &key));
    if (!mode) {
        UOZ_SET_ERROR(texts.no_mode);
        return nullptr;
    }
    JsonPtr body(json_object_new_object());
    if (!body) {
        UOZ_SET_ERROR("Could not create new JSON Message");
        return nullptr;
    }
    if (!kt5_json_add(body.get(), "mode", mode.release())) {
        UOZ_SET_ERROR("Could not add 'mode' to JSON");
        return nullptr;
    }
    if (!add_string(body.get(), "targetAddress", texts.target_address)) {
        UOZ_SET_ERROR("Could not add 'targetAddress' to JSON");
        return nullptr;
    }
    if (!kt5_json_add(body.get(), key, block.release())) {
        UOZ_SET_ERROR("Could not add 'can' to JSON");
        return nullptr;
    }
    return body.release();
}

}  // namespace

char *generate_reply_id(int32_t length) {
    if (length < 0)
        return nullptr;
    auto *id = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
    if (id == nullptr)
        return nullptr;
    static const char kAlphabet[] = REPLY_ID_ALPHABET;
    constexpr unsigned kAlphabetSize = sizeof(kAlphabet) - 1;
    // Reseeded from the calendar second at every call, so identifiers made
    // within one second repeat; the reply wait never relies on them differing
    // across ECUs. rand() is shared by concurrent callers, which at worst
    // interleave their draws.
    srand(static_cast<unsigned>(time(nullptr)));
    for (int32_t i = 0; i < length; ++i) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe)
        id[i] = kAlphabet[static_cast<unsigned>(rand()) % kAlphabetSize];
    }
    id[length] = '\0';
    return id;
}

json_object *transport_mode_name(TransportType type, const char **key) {
    const char *mode = nullptr;
    switch (type) {
        case TRANSPORT_CAN:
            mode = "CAN";
            break;
        case TRANSPORT_CANFD:
            mode = "CANFD";
            break;
        case TRANSPORT_DOIP:
            mode = "DOIP";
            break;
        case TRANSPORT_IOC:
            mode = "IOC";
            break;
    }
    if (mode == nullptr)
        return nullptr;
    *key = transport_block_key(type);
    return json_object_new_string(mode);
}

json_object *build_transport_block(UDSOverZelkoHandle *handle, int32_t target_address,
                                   EcuConfig **record) {
    if (target_address == -1) {
        *record = handle->broadcast_ecu;
        return build_broadcast_blocks(handle);
    }
    if (target_address < -1)
        return nullptr;
    EcuConfig *found = find_ecu(handle, target_address);
    if (found == nullptr) {
        UOZ_SET_ERRORF("Could not find tragetAddress=%d", target_address);
        return nullptr;
    }
    *record = found;
    return build_ecu_block(found);
}

json_object *build_query_body(UDSOverZelkoHandle *handle, int32_t target_address, QueryKind kind,
                              json_object *uds, EcuConfig **record) {
    char address_text[8];
    snprintf(address_text, sizeof(address_text), target_address == -1 ? "%d" : "0x%04X",
             target_address);
    EcuConfig *addressed = nullptr;
    JsonPtr body(build_body(handle, target_address,
                            {address_text, "Could not get tp blob", "Could not get tp mode"},
                            &addressed));
    if (record != nullptr)
        *record = addressed;
    if (!body)
        return nullptr;
    if (kind == QUERY_UDS_DATA) {
        // The body holds a reference: the request's own object, never
        // changed, is sent as it is rather than copied.
        if (uds == nullptr || !kt5_json_add(body.get(), "uds", json_object_get(uds))) {
            UOZ_SET_ERROR("Could not add 'uds' to JSON");
            return nullptr;
        }
    } else if (kind == QUERY_VERSION) {
        if (!add_version(body.get(), addressed))
            return nullptr;
    }
    return body.release();
}

json_object *build_routine_body(UDSOverZelkoHandle *handle, int32_t target_address,
                                const char *address_text, json_object *routine,
                                const char *mode_failure, EcuConfig **record) {
    JsonPtr owned_routine(routine);
    JsonPtr body(build_body(handle, target_address,
                            {address_text, "Could not get Transport Information", mode_failure},
                            record));
    if (!body)
        return nullptr;
    // A remote command that chose no routine sends JSON null.
    bool chosen = owned_routine != nullptr;
    if (!kt5_json_add(body.get(), "routine", owned_routine.release()) && chosen) {
        UOZ_SET_ERROR("Could not add 'routine' to JSON");
        return nullptr;
    }
    return body.release();
}

json_object *wrap_query(const char *reply_id, json_object *body) {
    JsonPtr owned_body(body);
    JsonPtr envelope(json_object_new_object());
    if (!envelope || !add_string(envelope.get(), "type", "zelko.skyharbor-query") ||
        reply_id == nullptr || !add_string(envelope.get(), "reply-id", reply_id) ||
        !kt5_json_add(envelope.get(), "body", owned_body.release())) {
        UOZ_SET_ERROR("Could not add 'uds' to JSON");
        return nullptr;
    }
    return envelope.release();
}
