/* libatsclient: asks the address translation service of this machine which port GID owns an IPv4 address, the other way
 * round, and for the path to either.
 *
 * A blocking call in five lines:
 *
 *     ats_client_t *client;
 *     ats_answer_t answer;
 *     if (ats_open(&client, NULL) != ATS_OK) return 1;
 *     if (ats_resolve(client, inet_addr("10.0.0.2"), NULL, &answer) == ATS_OK) use(answer.gid);
 *     ats_close(client);
 *
 * Asynchronous calls: ats_submit_resolve() any number of questions (the service takes 16384 of a user by default),
 * poll() the descriptor for input, ats_collect() the answers.
 *
 * Threads: any number of threads may use one client at the same time; only ats_close() must be the last call. A child
 * made by fork() must not use its parent's client.
 * Signals: no call raises SIGPIPE. A signal does not end a waiting call early.
 * Connection: a client connects when it is first needed, and again after the service was restarted.
 * Byte order: addresses are in network order, as in struct in_addr. GIDs are 16 bytes in network order, as in
 * struct in6_addr and union ibv_gid. */
#ifndef ATS_CLIENT_H
#define ATS_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

/* The version of this interface. A library of a higher minor version serves programs of a lower one. */
#define ATS_CLIENT_MAJOR 1
#define ATS_CLIENT_MINOR 1

typedef struct ats_client ats_client_t;

/* What a call or a question came to. */
typedef enum ats_status {
    ATS_OK = 0,            /* found */
    ATS_NOT_FOUND = 1,     /* the SA names no owner, or the cache does not know (ATS_CACHED_ONLY) */
    ATS_NO_ANSWER = 2,     /* neither the SA nor the service answered in time */
    ATS_REFUSED = 3,       /* the service, or the SA, refused the question: `reason` says why */
    ATS_NOT_CONNECTED = 4, /* no service listens, or it went away before it answered */
    ATS_INVALID = 5,       /* an argument is wrong, or the service's answer makes no sense */
    ATS_NO_MEMORY = 6      /* memory or descriptors are used up */
} ats_status_t;

typedef enum ats_source {
    ATS_SOURCE_NONE = 0, /* nobody answered */
    ATS_SOURCE_CACHE = 1,
    ATS_SOURCE_SA = 2
} ats_source_t;

/* Flags of a question. At most one of them. */
#define ATS_CACHED_ONLY 1u /* ask nobody: look in the service's cache */
#define ATS_VERIFY 2u      /* when the cache answers, ask the SA too */
#define ATS_FRESH 4u       /* of an address or a path: ask the SA whatever the cache knows */

#define ATS_DEFAULT_TIMEOUT_MS 5000

/* Start from ATS_OPTIONS_INIT, which makes later versions of this structure compatible. */
typedef struct ats_options {
    uint32_t size;      /* sizeof(ats_options_t) */
    uint32_t flags;     /* ATS_CACHED_ONLY, ATS_VERIFY, ATS_FRESH or 0 */
    int32_t timeout_ms; /* how long to wait for the answer; above 0 */
    uint32_t reserved;  /* 0 */
    const char* host;   /* the host of the service that asks; NULL: its first */
} ats_options_t;

#define ATS_OPTIONS_INIT                                                                                               \
    {                                                                                                                  \
        (uint32_t)sizeof(ats_options_t), 0, ATS_DEFAULT_TIMEOUT_MS, 0, NULL                                            \
    }

/* A PathRecord (IBA 15.2.5.16): host order, in the standard's encodings. The path is reversible. It leads to the GID
 * and the address of its answer; an address of zero is not known. Since version 1.1. */
typedef struct ats_path {
    uint8_t sgid[16]; /* network order: of the port on which the path begins */
    uint32_t flow_label;
    uint16_t dlid;
    uint16_t slid;
    uint16_t p_key;
    uint8_t sl;
    uint8_t mtu;             /* 1 is 256 bytes, 5 is 4096: enum ibv_mtu */
    uint8_t rate;            /* enum ibv_rate */
    uint8_t packet_lifetime; /* n: 4.096 microseconds times 2 to the n */
    uint8_t hop_limit;
    uint8_t traffic_class;
} ats_path_t;

typedef struct ats_answer {
    uint64_t tag;        /* as submitted; 0 of a blocking call */
    ats_status_t status; /* the other fields are filled as far as they are known */
    ats_source_t source;
    int32_t verified;      /* of ATS_VERIFY: 1 the SA agrees, 0 it does not (its answer stands here), -1 not known */
    uint32_t address;      /* network order */
    uint8_t gid[16];       /* network order */
    uint64_t microseconds; /* how long the service took */
    char reason[160];      /* of a status other than ATS_OK: one line for people */
    ats_path_t path;       /* of a path that was asked for */
} ats_answer_t;

/* Makes a client for the service on the socket `path`; NULL: the default, see ats_default_socket(). It connects with
 * the first question. ATS_OK; ATS_INVALID: the path is too long; ATS_NO_MEMORY. The caller owns *client and ends it
 * with ats_close(). */
ats_status_t ats_open(ats_client_t** client, const char* path);

/* Ends a client. Outstanding questions get no completion. NULL is allowed. No other call may run or follow. */
void ats_close(ats_client_t* client);

/* Finds the GID that owns an address (network order). Blocks until the answer, or for options->timeout_ms at most.
 * `options` NULL: ATS_OPTIONS_INIT. Returns answer->status. */
ats_status_t ats_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer);

/* Finds the address that a GID owns. Otherwise like ats_resolve(). */
ats_status_t ats_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                         ats_answer_t* answer);

/* Finds the path from this machine to an address (network order), or to a GID. Otherwise like ats_resolve(). ATS_VERIFY
 * is not for paths. Since version 1.1. */
ats_status_t ats_find_path(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer);
ats_status_t ats_find_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                  ats_answer_t* answer);

/* Submits a question and returns at once. Its answer, which carries `tag`, comes out of ats_collect(): exactly one for
 * each question submitted with ATS_OK, at the latest when its time is over. ATS_OK; ATS_INVALID: wrong arguments;
 * ATS_NOT_CONNECTED: no service; ATS_REFUSED: it speaks another protocol or refuses this user; ATS_NO_MEMORY. Waits
 * for options->timeout_ms at most when the service does not read what was sent (then ATS_NO_ANSWER). */
ats_status_t ats_submit_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag);
ats_status_t ats_submit_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                uint64_t tag);
ats_status_t ats_submit_path(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag);
ats_status_t ats_submit_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                    uint64_t tag);

/* The descriptor that poll() and epoll report readable when ats_collect() has something to do. It stays the same for
 * the client's life and belongs to the client: do not read, write or close it. */
int ats_descriptor(const ats_client_t* client);

/* Stores up to `capacity` answers and returns how many. Does not wait. */
size_t ats_collect(ats_client_t* client, ats_answer_t* answers, size_t capacity);

/* The same, but waits until there is at least one answer, for `timeout_ms` at most; -1: until one comes. Returns 0
 * when the time is over or when no question is outstanding. */
size_t ats_wait(ats_client_t* client, ats_answer_t* answers, size_t capacity, int timeout_ms);

/* Sends any request of docs/protocol.md, as in {"request":"status"}, and stores its answer in *answer, which the
 * caller frees with ats_free(). A refusal of the service is an answer: {"error": ...}. Blocks for `timeout_ms` at
 * most; requests of several threads take turns. ATS_OK: *answer is set; otherwise it is NULL. */
ats_status_t ats_request(ats_client_t* client, const char* request, int timeout_ms, char** answer);

/* The same in two steps, for an answer of several lines ("log") or one that may take its time. A client has at most
 * one such request, of one thread; a new one gives up the old one. (A followed log is sent until the next "log" request
 * or ats_close().) ats_request_next() stores the next line; ATS_NO_ANSWER: none came in time, and the request goes on;
 * ATS_NOT_FOUND: there is no further line. */
ats_status_t ats_request_begin(ats_client_t* client, const char* request, int timeout_ms);
ats_status_t ats_request_next(ats_client_t* client, int timeout_ms, char** line);
void ats_free(char* answer);

/* One word for a status, as in "not found". Never NULL. */
const char* ats_status_text(ats_status_t status);

/* Says why the calling thread's last failed call failed, in one line for people. Valid until the thread's next failed
 * call. Never NULL. */
const char* ats_last_error(void);

/* Stores the path of the default socket: $ATS_SOCKET, or /run/ats.sock for root, and for others the first of these
 * that exists: ats.sock in $XDG_RUNTIME_DIR, /tmp/ats-UID.sock, /run/ats.sock. Returns its length; `path` is cut to
 * `size` bytes with the final NUL. */
size_t ats_default_socket(char* path, size_t size);

/* The version of the library, as in "1.21". */
const char* ats_client_version(void);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
