/* libatsclient: asks the address translation service of this machine. It finds the port GID of an IPv4 address, the
 * IPv4 address of a GID, and the path to either.
 *
 * A blocking call in five lines:
 *
 *     ats_client_t *client;
 *     ats_answer_t answer;
 *     if (ats_open(&client, NULL) != ATS_OK) return 1;
 *     if (ats_resolve(client, inet_addr("10.0.0.2"), NULL, &answer) == ATS_OK) use(answer.gid);
 *     ats_close(client);
 *
 * Asynchronous calls: submit any number of questions with ats_submit_resolve() (by default, the service accepts 16384
 * for each user). Then poll() the descriptor for input, and fetch the answers with ats_collect().
 *
 * Threads: any number of threads may use one client at the same time, except that ats_close() must be the last call. A
 * child of fork() must not use its parent's client.
 * Signals: no call raises SIGPIPE. A signal does not end a waiting call early.
 * Connection: a client connects at its first question, and again after a restart of the service. If the connection
 * breaks before the answer, the client connects again and repeats the question once, without a report. Requests of
 * ats_request() and ats_request_begin() are not repeated, because they may be orders. A question whose time is over
 * stays in the service's queue until the service has answered it or the connection closes. It counts against the
 * user's limit until then.
 * Byte order: addresses are in network order, like struct in_addr. GIDs are 16 bytes in network order, like
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

/* The version of this interface. Programs for a lower minor version also work with this library. */
#define ATS_CLIENT_MAJOR 1
#define ATS_CLIENT_MINOR 1

typedef struct ats_client ats_client_t;

/* The result of a call or a question. */
typedef enum ats_status {
    ATS_OK = 0,            /* found */
    ATS_NOT_FOUND = 1,     /* the SA names no owner, or the cache has no answer (ATS_CACHED_ONLY) */
    ATS_NO_ANSWER = 2,     /* neither the SA nor the service answered in time */
    ATS_REFUSED = 3,       /* the service, or the SA, refused the question; see `reason` */
    ATS_NOT_CONNECTED = 4, /* no service listens, or it ended before it answered */
    ATS_INVALID = 5,       /* an argument is wrong, or the service's answer is invalid */
    ATS_NO_MEMORY = 6      /* no memory or descriptors are left */
} ats_status_t;

typedef enum ats_source {
    ATS_SOURCE_NONE = 0, /* no answer */
    ATS_SOURCE_CACHE = 1,
    ATS_SOURCE_SA = 2
} ats_source_t;

/* Flags of a question. Set at most one of them. */
#define ATS_CACHED_ONLY 1u /* ask only the service's cache */
#define ATS_VERIFY 2u      /* if the cache answers, also ask the SA */
#define ATS_FRESH 4u       /* for an address or a path: ask the SA even if the cache has an answer */

#define ATS_DEFAULT_TIMEOUT_MS 5000

/* Initialise it with ATS_OPTIONS_INIT; then later versions of this structure are compatible. */
typedef struct ats_options {
    uint32_t size;      /* sizeof(ats_options_t) */
    uint32_t flags;     /* ATS_CACHED_ONLY, ATS_VERIFY, ATS_FRESH or 0 */
    int32_t timeout_ms; /* the longest time to wait for the answer; above 0 */
    uint32_t reserved;  /* 0 */
    const char* host;   /* the host of the service that asks; NULL means the first one */
} ats_options_t;

#define ATS_OPTIONS_INIT                                                                                               \
    {                                                                                                                  \
        (uint32_t)sizeof(ats_options_t), 0, ATS_DEFAULT_TIMEOUT_MS, 0, NULL                                            \
    }

/* A PathRecord (IBA 15.2.5.16) in host order and in the standard's encodings. The path is reversible. It leads to the
 * GID and the address of its answer; the address is zero if it is unknown. Since version 1.1. */
typedef struct ats_path {
    uint8_t sgid[16]; /* network order; the port on which the path begins */
    uint32_t flow_label;
    uint16_t dlid;
    uint16_t slid;
    uint16_t p_key;
    uint8_t sl;
    uint8_t mtu;             /* 1 is 256 bytes, 5 is 4096: enum ibv_mtu */
    uint8_t rate;            /* enum ibv_rate */
    uint8_t packet_lifetime; /* n means 4.096 microseconds times 2 to the n */
    uint8_t hop_limit;
    uint8_t traffic_class;
} ats_path_t;

typedef struct ats_answer {
    uint64_t tag;        /* from the submission; 0 for a blocking call */
    ats_status_t status; /* the other fields have values if these are known */
    ats_source_t source;
    int32_t verified;      /* for ATS_VERIFY: 1 the SA agrees; 0 it differs, and this is its answer; -1 unknown */
    uint32_t address;      /* network order */
    uint8_t gid[16];       /* network order */
    uint64_t microseconds; /* the time that the service needed */
    char reason[160];      /* for a status other than ATS_OK: one line for people */
    ats_path_t path;       /* for a question about a path */
} ats_answer_t;

/* Makes a client for the service on the socket `path`, or on the default one for NULL (see ats_default_socket()). The
 * client connects at its first question. Returns ATS_OK, ATS_INVALID if the path is too long, or ATS_NO_MEMORY. The
 * caller owns *client and ends it with ats_close(). */
ats_status_t ats_open(ats_client_t** client, const char* path);

/* Ends a client. Outstanding questions get no completion. NULL is allowed. No other call may run or follow. */
void ats_close(ats_client_t* client);

/* Finds the GID that owns an address (network order). Blocks until the answer, at most for options->timeout_ms.
 * `options` may be NULL, which means ATS_OPTIONS_INIT. Returns answer->status. */
ats_status_t ats_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer);

/* Finds the address that a GID owns. Otherwise like ats_resolve(). */
ats_status_t ats_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                         ats_answer_t* answer);

/* Finds the path from this machine to an address (network order), or to a GID. Otherwise like ats_resolve(). ATS_VERIFY
 * is not for paths. Since version 1.1. */
ats_status_t ats_find_path(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer);
ats_status_t ats_find_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                  ats_answer_t* answer);

/* Submits a question and returns at once. ats_collect() returns its answer, which has the same `tag`. After ATS_OK
 * there is exactly one answer, at the latest when the time of the question is over. Other results: ATS_INVALID for
 * wrong arguments, ATS_NOT_CONNECTED without a service, ATS_REFUSED if the service has another protocol or refuses this
 * user, ATS_NO_MEMORY. If the service does not read the questions sent before, the call waits at most for
 * options->timeout_ms and then returns ATS_NO_ANSWER. */
ats_status_t ats_submit_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag);
ats_status_t ats_submit_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                uint64_t tag);
ats_status_t ats_submit_path(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag);
ats_status_t ats_submit_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                    uint64_t tag);

/* A descriptor for poll() and epoll. It is readable when ats_collect() has work to do. It never changes and belongs to
 * the client: do not read, write or close it. */
int ats_descriptor(const ats_client_t* client);

/* Stores up to `capacity` answers and returns their number. Does not wait. */
size_t ats_collect(ats_client_t* client, ats_answer_t* answers, size_t capacity);

/* Does the same, but waits for at least one answer, at most for `timeout_ms`; -1 means no limit. Returns 0 when the
 * time is over or when no question is outstanding. */
size_t ats_wait(ats_client_t* client, ats_answer_t* answers, size_t capacity, int timeout_ms);

/* Sends any request of docs/protocol.md, for example {"request":"status"}, and stores its answer in *answer. The caller
 * frees it with ats_free(). A refusal of the service, {"error": ...}, is also an answer. Blocks at most for
 * `timeout_ms`. Requests of several threads take turns. *answer is set after ATS_OK, otherwise it is NULL. */
ats_status_t ats_request(ats_client_t* client, const char* request, int timeout_ms, char** answer);

/* Do the same in two steps, for an answer of several lines ("log") or a slow one. Only one thread of a client may use
 * them at a time, for one request; a new request ends the old one. (A followed log is sent until the next "log" request
 * or ats_close().) ats_request_next() stores the next line. It returns ATS_NO_ANSWER if none came in time (the request
 * continues), and ATS_NOT_FOUND after the last line. */
ats_status_t ats_request_begin(ats_client_t* client, const char* request, int timeout_ms);
ats_status_t ats_request_next(ats_client_t* client, int timeout_ms, char** line);
void ats_free(char* answer);

/* A short text for a status, for example "not found". Never NULL. */
const char* ats_status_text(ats_status_t status);

/* The reason of the calling thread's last failed call, in one line for people. Valid until the thread's next failed
 * call. Never NULL. */
const char* ats_last_error(void);

/* Stores the path of the default socket: $ATS_SOCKET if it is set, otherwise /run/ats.sock for root. For other users,
 * it is the first of these that exists: ats.sock in $XDG_RUNTIME_DIR, /tmp/ats-UID.sock, /run/ats.sock. Returns the
 * length of the whole path. `path` is cut to `size` bytes including the final NUL. */
size_t ats_default_socket(char* path, size_t size);

/* The version of the library, for example "1.21". */
const char* ats_client_version(void);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
