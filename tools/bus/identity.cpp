#include "identity.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

namespace uozbus {

namespace {

void free_buffer(kt5bus_buffer *buffer) {
    if (buffer == nullptr)
        return;
    free(buffer->data);
    free(buffer);
}

// Releases a NULL-terminated buffer list and every buffer in it.
void free_list(kt5bus_buffer **list) {
    for (kt5bus_buffer **at = list; at != nullptr && *at != nullptr; ++at)
        free_buffer(*at);
    free(list);
}

struct BufferFree {
    void operator()(kt5bus_buffer *buffer) const { free_buffer(buffer); }
};
using BufferPtr = std::unique_ptr<kt5bus_buffer, BufferFree>;

bool read_whole_file(const std::string &path, std::string *content) {
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr)
        return false;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
        content->append(chunk, got);
    bool complete = ferror(file) == 0;
    fclose(file);
    return complete;
}

// The file as a PEM buffer; nullptr when it cannot be read or memory runs out.
BufferPtr read_pem(const std::string &path) {
    std::string content;
    if (!read_whole_file(path, &content))
        return nullptr;
    BufferPtr buffer(static_cast<kt5bus_buffer *>(calloc(1, sizeof(kt5bus_buffer))));
    if (!buffer)
        return nullptr;
    buffer->data = calloc(1, content.size() + 1);
    if (buffer->data == nullptr)
        return nullptr;
    memcpy(buffer->data, content.data(), content.size());
    buffer->length = content.size() + 1;
    buffer->encoding = KT5BUS_ENCODING_PEM;
    return buffer;
}

// A NULL-terminated list that takes the buffer over; nullptr (the buffer
// released) when memory runs out.
kt5bus_buffer **list_of(BufferPtr buffer) {
    auto **list = static_cast<kt5bus_buffer **>(calloc(2, sizeof(kt5bus_buffer *)));
    if (list != nullptr)
        list[0] = buffer.release();
    return list;
}

}  // namespace

IdentityFiles identity_files(const std::string &dir) {
    return {dir + "/private.pem", dir + "/cert.pem", dir + "/../ca/ca.pem"};
}

bool load_identity(kt5bus_identity *identity, const std::string &dir) {
    memset(identity, 0, sizeof(*identity));
    IdentityFiles files = identity_files(dir);
    BufferPtr key = read_pem(files.private_key);
    BufferPtr certificate = read_pem(files.certificate);
    BufferPtr ca = read_pem(files.ca);
    if (!key || !certificate || !ca)
        return false;
    kt5bus_buffer **chain = list_of(std::move(certificate));
    kt5bus_buffer **trust = list_of(std::move(ca));
    if (chain == nullptr || trust == nullptr) {
        free_list(chain);
        free_list(trust);
        return false;
    }
    identity->kind = KT5BUS_IDENTITY_X509;
    identity->x509.private_key = key.release();
    identity->x509.chain = chain;
    identity->x509.trust = trust;
    return true;
}

void free_identity(kt5bus_identity *identity) {
    free_list(identity->x509.chain);
    free_list(identity->x509.trust);
    free_buffer(identity->x509.private_key);
    memset(identity, 0, sizeof(*identity));
}

}  // namespace uozbus
