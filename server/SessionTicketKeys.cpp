#include "SessionTicketKeys.h"

#include "Log.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstring>

namespace {

// What OpenSSL's callback returns: a ticket it cannot open costs a full handshake, nothing more.
const int noTicket = 0;
const int opened = 1;
const int openedReplace = 2;

int contextIndex()
{
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

} // namespace

SessionTicketKeys::SessionTicketKeys(std::function<Clock::time_point()> now)
    : now(std::move(now))
    // Fetched once rather than looked up for every ticket.
    , cipher(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr))
{
}

SessionTicketKeys::~SessionTicketKeys()
{
    discardAll();
    EVP_CIPHER_free(cipher);
}

void SessionTicketKeys::install(SSL_CTX* context)
{
    SSL_CTX_set_ex_data(context, contextIndex(), this);
    SSL_CTX_set_tlsext_ticket_key_evp_cb(context, &SessionTicketKeys::onTicket);
}

void SessionTicketKeys::discardAll()
{
    forget(current);
    forget(previous);
}

void SessionTicketKeys::forget(std::optional<Key>& key)
{
    if (key)
        OPENSSL_cleanse(&*key, sizeof *key);
    key.reset();
}

int SessionTicketKeys::onTicket(SSL* ssl, unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipherContext,
                                EVP_MAC_CTX* macContext, int sealing)
{
    auto* keys = static_cast<SessionTicketKeys*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), contextIndex()));
    if (!keys || !keys->cipher)
        return noTicket;
    keys->rotateIfDue();
    return sealing ? keys->seal(name, iv, cipherContext, macContext)
                   : keys->open(name, iv, cipherContext, macContext);
}

void SessionTicketKeys::rotateIfDue()
{
    const Clock::time_point at = now();
    if (current && at - current->made < lifetime)
        return;
    forget(previous);
    // Unused for two lifetimes, it has no ticket left worth opening.
    if (current && at - current->made < 2 * lifetime)
        previous = current;
    forget(current);
    Key key;
    key.made = at;
    if (RAND_bytes(key.name, sizeof key.name) != 1 || RAND_bytes(key.cipherKey, sizeof key.cipherKey) != 1
        || RAND_bytes(key.macKey, sizeof key.macKey) != 1) {
        // Without a key no ticket is issued; every client does full handshakes, as it may.
        TLOG_WARN() << "No random bytes for a session ticket key; sessions are not resumed for now.";
        OPENSSL_cleanse(&key, sizeof key);
        return;
    }
    current = key;
    OPENSSL_cleanse(&key, sizeof key);
}

int SessionTicketKeys::seal(unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipherContext,
                            EVP_MAC_CTX* macContext)
{
    if (!current || RAND_bytes(iv, EVP_CIPHER_get_iv_length(cipher)) != 1)
        return noTicket;
    std::memcpy(name, current->name, sizeof current->name);
    if (EVP_EncryptInit_ex(cipherContext, cipher, nullptr, current->cipherKey, iv) != 1
        || !useMacKey(*current, macContext))
        return -1;
    return opened;
}

int SessionTicketKeys::open(const unsigned char* name, const unsigned char* iv, EVP_CIPHER_CTX* cipherContext,
                            EVP_MAC_CTX* macContext)
{
    const bool isCurrent = current && std::memcmp(name, current->name, sizeof current->name) == 0;
    const bool isPrevious = !isCurrent && previous && std::memcmp(name, previous->name, sizeof previous->name) == 0;
    if (!isCurrent && !isPrevious)
        return noTicket;
    const Key& key = isCurrent ? *current : *previous;
    if (!useMacKey(key, macContext) || EVP_DecryptInit_ex(cipherContext, cipher, nullptr, key.cipherKey, iv) != 1)
        return -1;
    return isCurrent ? opened : openedReplace;
}

bool SessionTicketKeys::useMacKey(const Key& key, EVP_MAC_CTX* macContext) const
{
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, const_cast<unsigned char*>(key.macKey),
                                          sizeof key.macKey),
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_end(),
    };
    return EVP_MAC_CTX_set_params(macContext, params) == 1;
}
