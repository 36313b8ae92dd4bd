/* libatsclient: asks the address translation service of this machine. It finds the port GID of an IPv4 address, the
 * IPv4 address of a GID, and the path to an address or a GID.
 *
 * A blocking call in five lines:
 *
 *     ats_client_t *client;
 *     ats_answer_t answer;
 *     if (ats_open(&client, NULL) != ATS_OK) return 1;
 *     if (ats_resolve(client, inet_addr("10.0.0.2"), NULL, &answer) == ATS_OK) use(answer.gid);
 *     ats_close(client);
 *
 * Asynchronous calls: submit any number of questions with ats_submit_resolve(). (By default, the service accepts up to
 * 16384 unanswered questions of a user.) Then poll() the descriptor for input, and fetch the answers with
 * ats_collect().
 *
 * Threads: any number of threads may use one client at the same time. ats_close() must be the last call.
 * Processes: a child of fork() must open its own client. With a client of its parent, every call except ats_close()
 * fails with ATS_INVALID; ats_wait() and ats_collect() return 0. ats_close() does not disturb the parent.
 * Signals: no call raises SIGPIPE. A signal does not end a waiting call early.
 * Connection: a client connects at its first question, and again after a restart of the service. If the connection
 * breaks before the answer, the client connects again at once and repeats the question once. If no service listens at
 * this moment, for example during a restart, the question ends with ATS_NOT_CONNECTED, like a new question at this
 * moment: ask again later. The client does not repeat requests of ats_request() and ats_request_begin(), because they
 * may be orders. After the time-out of a question, the question stays in the service's queue until the service has
 * answered it or the connection closes. Until then, it counts against the user's limit.
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
    ATS_OK = 0,            /* found, or the call has succeeded */
    ATS_NOT_FOUND = 1,     /* the SA has no such record; with ATS_CACHED_ONLY, the cache has no answer */
    ATS_NO_ANSWER = 2,     /* the SA or the service did not answer in time */
    ATS_REFUSED = 3,       /* the service or the SA refused the question; `reason` says why */
    ATS_NOT_CONNECTED = 4, /* no service listens, or the service ended before it answered */
    ATS_INVALID = 5,       /* an argument is wrong, or the service's answer is invalid */
    ATS_NO_MEMORY = 6      /* no memory or descriptors are left */
} ats_status_t;

typedef enum ats_source {
    ATS_SOURCE_NONE = 0, /* there is no answer */
    ATS_SOURCE_CACHE = 1,
    ATS_SOURCE_SA = 2
} ats_source_t;

/* Flags of a question. Set at most one of them. */
#define ATS_CACHED_ONLY 1u /* ask only the service's cache */
#define ATS_VERIFY 2u      /* if the cache answers, also ask the SA */
#define ATS_FRESH 4u       /* ask the SA even if the cache has an answer; not for the address of a GID */

#define ATS_DEFAULT_TIMEOUT_MS 5000

/* Initialise this structure with ATS_OPTIONS_INIT. Your program then also works with later versions of the library, in
 * which the structure may be longer. */
typedef struct ats_options {
    uint32_t size;      /* sizeof(ats_options_t) */
    uint32_t flags;     /* ATS_CACHED_ONLY, ATS_VERIFY, ATS_FRESH or 0 */
    int32_t timeout_ms; /* the longest time to wait for the answer; above 0; later, the service does not ask the SA */
    uint32_t reserved;  /* 0 */
    const char* host;   /* the name of the service's host that asks the SA; NULL means the first host */
} ats_options_t;

#define ATS_OPTIONS_INIT                                                                                               \
    {                                                                                                                  \
        (uint32_t)sizeof(ats_options_t), 0, ATS_DEFAULT_TIMEOUT_MS, 0, NULL                                            \
    }

/* A PathRecord (IBA 15.2.5.16). Numbers are in host order and in the standard's encodings. The path is reversible. It
 * leads to the GID that is in `gid` of the answer. Since version 1.1. */
typedef struct ats_path {
    uint8_t sgid[16]; /* the GID of the port on which the path begins, in network order */
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

/* An answer. A field whose value is not known is 0, except `verified`, which is then -1. */
typedef struct ats_answer {
    uint64_t tag; /* the tag of the submitted question; 0 for a blocking call */
    ats_status_t status;
    ats_source_t source;
    int32_t verified; /* for ATS_VERIFY: 1: cache and SA agree; 0: they differ, this is the SA's answer; -1: unknown */
    uint32_t address; /* network order; for a path to a GID: 0 */
    uint8_t gid[16];  /* network order */
    uint64_t microseconds; /* the time that the service needed */
    char reason[160];      /* if the status is not ATS_OK: one line for people */
    ats_path_t path;       /* for a question about a path */
} ats_answer_t;

/* Makes a client for the service on the socket `path`. If `path` is NULL, uses the default socket (see
 * ats_default_socket()). The client connects at its first question. Returns ATS_OK. Returns ATS_INVALID if the path is
 * empty or too long, and ATS_NO_MEMORY if no memory or descriptors are left. The caller owns *client and ends it with
 * ats_close(). */
ats_status_t ats_open(ats_client_t** client, const char* path);

/* Ends a client. Its unanswered questions get no answer any more. Does nothing for NULL. No other call with this client
 * may run at the same time or later. */
void ats_close(ats_client_t* client);

/* Finds the GID of an address (network order), and stores the answer in *answer. Blocks until the answer comes,
 * at most for options->timeout_ms. `options` may be NULL, which means ATS_OPTIONS_INIT. Returns answer->status. */
ats_status_t ats_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer);

/* Finds the address of a GID. ATS_FRESH is not allowed. The rest is as in ats_resolve(). */
ats_status_t ats_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                         ats_answer_t* answer);

/* Finds the path from this machine to an address (network order), or to a GID. ATS_VERIFY is not allowed. The rest is
 * as in ats_resolve(). Since version 1.1. */
ats_status_t ats_find_path(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer);
ats_status_t ats_find_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                  ats_answer_t* answer);

/* Each of these calls submits a question and does not wait for its answer. ats_collect() returns the answer, which has
 * the same `tag`. After ATS_OK, there is exactly one answer, at the latest when options->timeout_ms have passed. After
 * another result, there is no answer: ATS_INVALID means a wrong argument, ATS_NOT_CONNECTED that no service listens,
 * ATS_REFUSED that the service belongs to another user, and ATS_NO_MEMORY that no memory or descriptors are left. While
 * the service accepts no connection, or does not read earlier questions, the call waits. It returns ATS_NO_ANSWER if
 * this takes longer than options->timeout_ms. */
ats_status_t ats_submit_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag);
ats_status_t ats_submit_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                uint64_t tag);
ats_status_t ats_submit_path(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag);
ats_status_t ats_submit_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                    uint64_t tag);

/* Returns the client's descriptor for poll() and epoll. Call ats_collect() when the descriptor is readable. A client
 * has the same descriptor as long as it exists. The client owns the descriptor: do not read, write or close it. Returns
 * -1 for NULL. */
int ats_descriptor(const ats_client_t* client);

/* Stores the answers of submitted questions that have arrived, at most `capacity`, and returns their number. Does not
 * wait. */
size_t ats_collect(ats_client_t* client, ats_answer_t* answers, size_t capacity);

/* Does the same as ats_collect(), but waits until there is an answer, at most for `timeout_ms`. A negative number means
 * no limit. Returns 0 if the time is over, or at once if all submitted questions have been answered and collected. */
size_t ats_wait(ats_client_t* client, ats_answer_t* answers, size_t capacity, int timeout_ms);

/* Sends any request of docs/protocol.md, for example {"request":"status"}, and waits for its answer, at most for
 * `timeout_ms`. A request is one JSON object of at most 65000 bytes and 16 levels. Returns ATS_OK and stores the
 * answer, one JSON object, in *answer; the caller frees it with ats_free(). If the service refuses the request, the
 * answer is {"error": ...}, and the call also returns ATS_OK. After any other result, *answer is NULL. If several
 * threads call ats_request(), one request is sent after the other. */
ats_status_t ats_request(ats_client_t* client, const char* request, int timeout_ms, char** answer);

/* These two calls are for a request whose answer has several lines ("log") or takes long. ats_request_begin() sends the
 * request. Each ats_request_next() waits for one line, and stores the line in *line; the caller frees it with
 * ats_free(). If no line came in time, ats_request_next() returns ATS_NO_ANSWER: call it again. After the last line, it
 * returns ATS_NOT_FOUND. A negative `timeout_ms` means no limit. Only one thread may make these two calls. A client has
 * one such request at a time: a new request, also one of ats_request(), ends the old one. (The service sends a followed
 * log until the next "log" request or ats_close().) */
ats_status_t ats_request_begin(ats_client_t* client, const char* request, int timeout_ms);
ats_status_t ats_request_next(ats_client_t* client, int timeout_ms, char** line);

/* Frees an answer or a line. Does nothing for NULL. */
void ats_free(char* answer);

/* Returns a short text for a status, for example "not found". Never returns NULL. */
const char* ats_status_text(ats_status_t status);

/* Returns the reason why the calling thread's last failed call has failed, in one line for people. The text is valid
 * until the thread's next failed call. Never returns NULL. */
const char* ats_last_error(void);

/* Stores the path of the default socket in `path`, cut to `size` bytes including the final NUL. It is $ATS_SOCKET if
 * this variable is set. Otherwise it is the first of these that exists: for root, /run/ats.sock and /tmp/ats-0.sock;
 * for other users, ats.sock in $XDG_RUNTIME_DIR, /tmp/ats-UID.sock and /run/ats.sock. If none exists, it is the first
 * of them; without $XDG_RUNTIME_DIR, that is /tmp/ats-UID.sock. A file in /tmp counts only if it is a socket of this
 * user. Returns the length of the whole path. */
size_t ats_default_socket(char* path, size_t size);

/* Returns the version of the library, for example "1.21". */
const char* ats_client_version(void);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
