// The programs' bus client (tools/bus): connecting to the broker with a
// node identity, sending, receiving, presence, and a quick probe of the
// broker. This header: where a node's identity files are and how they are
// loaded for our bus library.
#ifndef UOZ_TOOLS_BUS_IDENTITY_H
#define UOZ_TOOLS_BUS_IDENTITY_H

#include <string>

#include "kt5bus/kt5bus.h"

namespace uozbus {

// The files of the identity in `dir`, laid out as uoz-pki makes them and the
// library reads them: the key and certificate in the directory, the CA one
// level up.
struct IdentityFiles {
    std::string private_key;  // <dir>/private.pem
    std::string certificate;  // <dir>/cert.pem
    std::string ca;           // <dir>/../ca/ca.pem
};
IdentityFiles identity_files(const std::string &dir);

// Loads the three PEM files into an identity (each buffer counts the text's
// terminating NUL). False when a file cannot be read or memory runs out;
// *identity is then empty. Release with free_identity.
bool load_identity(kt5bus_identity *identity, const std::string &dir);
// Releases what load_identity put in; an empty identity is fine.
void free_identity(kt5bus_identity *identity);

}  // namespace uozbus

#endif
