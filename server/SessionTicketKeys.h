#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <functional>
#include <optional>

// The keys that seal the session tickets a TLS context hands out, so that a client that comes
// back resumes its session instead of paying for a full handshake. They live in memory only:
// a restart ends every session. A new key takes over every `lifetime`; the one before it still
// opens its tickets (and has them replaced), so a ticket issued just before the change still
// resumes. Used on the thread that runs the handshakes.
class SessionTicketKeys
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds lifetime{3600};

    explicit SessionTicketKeys(std::function<Clock::time_point()> now = &Clock::now);
    ~SessionTicketKeys();
    SessionTicketKeys(const SessionTicketKeys&) = delete;
    SessionTicketKeys& operator=(const SessionTicketKeys&) = delete;

    // The context seals and opens its tickets with these keys from now on; they must outlive it.
    void install(SSL_CTX* context);
    // No ticket issued so far will resume.
    void discardAll();

private:
    struct Key
    {
        unsigned char name[16];
        unsigned char cipherKey[32];
        unsigned char macKey[32];
        Clock::time_point made;
    };

    static int onTicket(SSL* ssl, unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipherContext,
                        EVP_MAC_CTX* macContext, int sealing);
    int seal(unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipherContext, EVP_MAC_CTX* macContext);
    int open(const unsigned char* name, const unsigned char* iv, EVP_CIPHER_CTX* cipherContext,
             EVP_MAC_CTX* macContext);
    bool useMacKey(const Key& key, EVP_MAC_CTX* macContext) const;
    void rotateIfDue();
    static void forget(std::optional<Key>& key);

    const std::function<Clock::time_point()> now;
    EVP_CIPHER* cipher;
    std::optional<Key> current;
    std::optional<Key> previous;
};
