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
    /* The same in all requests of one node, and different in those of any other. */
    unsigned char node[16];
} LinkRequester;

/* Every operation is safe to call on any thread. */
typedef struct LinkSecurity {
    /* Of this record in bytes. Later versions only add operations behind; ask before calling one of those. */
    unsigned int size;
    /*
     * Called by a handler of AppResource, on the thread that runs it. Returns 1 and fills *requester if the
     * requester has proven that it holds a key. Returns 0 and leaves *requester as it is if not, or if no
     * handler runs on this thread.
     */
    int (*GetRequester)(LinkRequester* requester);
} LinkSecurity;

/* The operations, valid as long as the library is loaded. */
const LinkSecurity* GetLinkSecurity(void);

#ifdef __cplusplus
}
#endif

#endif
