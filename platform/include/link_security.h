/*
 * link_security.h - what a platform library that holds keys tells besides link_platform.h.
 *
 * All of it is optional. Lumora looks for GetLinkSecurity when it is loaded. A platform library without that
 * function holds no keys, and Lumora then behaves as it does with link_platform.h alone.
 */
#ifndef LINK_SECURITY_H
#define LINK_SECURITY_H

#ifdef __cplusplus
extern "C" {
#endif

/* Who sent a request. The platform has checked it by a key. */
typedef struct LinkRequester {
    /* The name of the key, NUL-terminated. Nodes may share a key. */
    char identity[65];
    /*
     * The same in all requests of one node, and different in those of any other. GetChannelPeer gives a
     * device other bytes: the same for one address and port.
     */
    unsigned char node[16];
} LinkRequester;

/* How data channels are to be protected. */
typedef enum LinkChannelMode {
    LINK_CHANNEL_PLAIN = 0,  /* never */
    LINK_CHANNEL_PREFER = 1, /* where the other end does it, too */
    LINK_CHANNEL_REQUIRE = 2 /* always: there is no channel with an end that does not */
} LinkChannelMode;

/* The directions of a data channel. Each is a connection of its own with a key of its own. */
typedef enum LinkDirection { LINK_TO_DEVICE = 0, LINK_TO_CLIENT = 1 } LinkDirection;

/* The keys of one data channel. Both ends make one while the client asks the device for the channel. */
typedef struct LinkChannel LinkChannel;

/* One protected connection. It does not own its socket. */
typedef struct LinkConnection LinkConnection;

/* Results of Handshake, Read and Write that are no numbers of bytes. */
enum {
    LINK_WANTS_READ = -1,  /* again when the socket is readable */
    LINK_WANTS_WRITE = -2, /* again when the socket is writable */
    LINK_FAILED = -3       /* the connection is of no more use */
};

/* The longest offer and answer with its NUL, in bytes. */
enum { LINK_MAX_OFFER = 256 };

/*
 * Every operation is safe to call on any thread. Of one connection, one operation runs at a time. None of
 * them blocks longer than the socket does.
 */
typedef struct LinkSecurity {
    /* Of this record in bytes. Later versions only add operations behind; ask before calling one of those. */
    unsigned int size;
    /*
     * Called by a handler of AppResource, on the thread that runs it. Returns 1 and fills *requester if the
     * requester has proven that it holds a key. Returns 0 and leaves *requester as it is if not, or if no
     * handler runs on this thread.
     */
    int (*GetRequester)(LinkRequester* requester);

    /* Today's mode; PLAIN if the node has no key. */
    LinkChannelMode (*GetChannelMode)(void);

    /*
     * The client's first step. Writes the offer, a JSON object that the client sends within its request, into
     * text. NULL if memory or random bytes are missing.
     */
    LinkChannel* (*OfferChannel)(char* text, unsigned int size);
    /*
     * The device's step, called by a handler of AppResource on the thread that runs it. Takes the offer and
     * writes the answer, a JSON object, into text. NULL if the requester has proven no key, if the offer is
     * none that this version understands, or if memory or random bytes are missing: errno is ENOMEM then, and
     * another number in the other cases.
     */
    LinkChannel* (*AnswerChannel)(const char* offer, char* text, unsigned int size);
    /*
     * The client's second step: takes the answer of the device at that address and UDP port. 1, or 0 if the
     * answer is none that this version understands.
     */
    int (*CompleteChannel)(LinkChannel* channel, const char* answer, const char* address, int port);
    /* Erases the keys. Connections that were opened with them live on. NULL is allowed. */
    void (*FreeChannel)(LinkChannel* channel);

    /*
     * Begins a connection on a connected socket, which stays open until FreeConnection: if the key of the
     * other end is withdrawn, the platform shuts the socket down, so that waiting threads wake, and every
     * later operation fails. accepts tells whether this end has accepted the connection; the other end is the
     * one that begins the handshake. A channel serves any number of connections. NULL if the channel is
     * neither answered nor complete, if its key has been withdrawn, or without memory.
     */
    LinkConnection* (*OpenConnection)(LinkChannel* channel, LinkDirection direction, int accepts, int socket);
    /* Goes on with the handshake: 1 when it is done, or one of the results above. */
    int (*Handshake)(LinkConnection* connection);
    /*
     * As read and write, and only after the handshake. Read makes one read of the socket at most, so it may
     * want another although some bytes came; 0 is an orderly end. Write takes as many bytes as the socket
     * does. The next Write begins with the bytes that were not taken, and at least as many of them, though
     * they may lie elsewhere.
     */
    int (*Read)(LinkConnection* connection, void* bytes, unsigned int size);
    int (*Write)(LinkConnection* connection, const void* bytes, unsigned int size);
    /* Whether Read has something to return without the socket: ask before waiting for the socket. */
    int (*HasPending)(LinkConnection* connection);
    /* Tells the other end that nothing follows, if the socket takes it at once. Does not close the socket. */
    void (*Shutdown)(LinkConnection* connection);
    /* NULL is allowed. */
    void (*FreeConnection)(LinkConnection* connection);

    /*
     * With whom this process has a private channel as a client (asDevice is 0) or as a device (1): as long as
     * a connection of it exists whose handshake is done. 1 and fills *peer, or 0.
     */
    int (*GetChannelPeer)(int asDevice, LinkRequester* peer);
} LinkSecurity;

/* The operations, valid as long as the library is loaded. */
const LinkSecurity* GetLinkSecurity(void);

#ifdef __cplusplus
}
#endif

#endif
