/*
 * tarnwick: build and take apart Internet mail messages on disk.
 *
 * The one public header. It compiles as C11 and as C++; every record keeps a
 * fixed byte layout, checked below with static assertions so that a C
 * application and the library agree on every offset.
 *
 * Widths: results, flags and counts are int32_t. Values handed back to the
 * application unchanged (user_value, the mime_options argument) are intptr_t,
 * so a pointer fits. A session handle is an int32_t that is never 0.
 */
#ifndef TARNWICK_H
#define TARNWICK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(TARNWICK_BUILDING)
#define TARNWICK_API __attribute__((visibility("default")))
#else
#define TARNWICK_API
#endif

#define TARNWICK_VERSION_MAJOR 0
#define TARNWICK_VERSION_MINOR 1
#define TARNWICK_VERSION_PATCH 0
#define TARNWICK_VERSION_STRING "0.1.0"

/* ---- Status values ------------------------------------------------------ */

enum {
    MIME_OK = 1,              /* success */
    MIME_FAIL = 0,            /* failure without detail; no session */
    MIME_ERROR = -1,          /* operation failed; unknown option selector */
    MIME_NO_MEMORY = -2,      /* a work buffer could not be had */
    MIME_FILE_ERROR = -3,     /* a file could not be opened, created or written */
    MIME_ENCODER_ERROR = -4,  /* an encoder failed on a part */
    MIME_STOPPED = -5,        /* a callback answered -1 */
    MIME_FEED_ERROR = -7,     /* spooling or feeding a finished file failed */
    MIME_NO_SESSION = -8,     /* the handle is 0 or does not resolve */
    MIME_DECODE_ERROR = -9,   /* decoding a part failed */
    MIME_JOIN_ERROR = -10,    /* a complete fragment set could not be joined */
    MIME_NO_TARGET = -12,     /* neither a message path nor an output callback */
    MIME_FRAGMENT_STORED = 21 /* one fragment stored, the set is not complete */
};

/* Extra answers of a composition next_part callback. */
enum {
    MIME_PART_END_MULTIPART = 19, /* this multipart is finished */
    MIME_PART_RAW = 20            /* no header for this part, raw bytes follow */
};

/* Transfer encoding codes. */
enum {
    MIME_ENC_NONE = 0,
    MIME_ENC_BASE64 = 2,
    MIME_ENC_QUOTED = 3,
    MIME_ENC_UUENCODE = 4,
    MIME_ENC_BINHEX = 5,
    MIME_ENC_BINARY = 6,
    MIME_ENC_PLAIN = 7
};

/* mime_options selectors and the special results of selectors 3, 4 and 8. */
enum {
    MIME_OPT_GET_USER = 1,
    MIME_OPT_SET_USER = 2,
    MIME_OPT_GET_SUBTYPE = 3,
    MIME_OPT_GET_ENCODING = 4,
    MIME_OPT_SET_DATE = 5,
    MIME_OPT_GET_PART_COUNT = 6,
    MIME_OPT_CLEAR_DATE = 7,
    MIME_OPT_GET_FILE_NAME = 8,
    MIME_OPT_NO_SUBTYPE = 5,
    MIME_OPT_NO_FILE_NAME = 8,
    MIME_OPT_ENC_NOTHING = 6,
    MIME_OPT_ENC_NO_EXTRACTION = 7
};

/* ---- Records -------------------------------------------------------------- */

/* File information of a BinHex part, 268 bytes, passed by value. */
typedef struct binhex_info {
    char name[256];
    char file_type[5];
    char creator[5];
    unsigned char flags[2];
} binhex_info;

/* Parameters of message/external-body. */
typedef struct mime_external_body_parameters {
    char subject[256];
    char site[100];
    char access_type[30];
    char directory[256];
    char mode[15];
    char server[100];
    char permission[15];
    char expiration[52];
    uint32_t size; /* 0 counts as absent */
    char reserved[200];
} mime_external_body_parameters;

/* Parameters of message/partial; they share the bytes of the one above. */
typedef struct mime_partial_parameters {
    int32_t part_number;
    int32_t part_total; /* 0 or less counts as absent */
    char part_id[248];
} mime_partial_parameters;

typedef union mime_part_parameters {
    mime_external_body_parameters external_body;
    mime_partial_parameters partial;
    unsigned char bytes[1028];
} mime_part_parameters;

/* The full record of one part, 6160 bytes. Text fields are NUL-terminated
 * inside their width; an empty text counts as absent. */
typedef struct mime_part_desc {
    char charset[20];
    char encoding[30];
    char content_id[80];
    char content_location[256];
    char content_base[256];
    char start[256];
    char type[100];
    char content_type[20];
    char content_subtype[20];
    char filename[512];
    char description[512];
    char reserved[2];
    mime_part_parameters parameters;
    uint32_t size_on_disk; /* 0 counts as absent */
    struct binhex_info binhex_info;
    /* Result fields, filled only by the streaming extraction. */
    char x_mailer[75];
    char received_with[75];
    char priority[4];
    char signed_flag;
    char encrypted_flag;
    char returned_flag;
    char returned_subject[75];
    unsigned char date_value[4];     /* seconds since 1970 UTC, big-endian */
    unsigned char received_value[4]; /* seconds since 1970 UTC, big-endian */
    char message_address[2556];
} mime_part_desc;

/* The shorter part record of create_message, 1524 bytes. */
typedef struct mime_part_info {
    char charset[20];
    char encoding[30];
    char filename[256];
    char content_id[80];
    char content_type[20];
    char content_subtype[22];
    mime_part_parameters parameters;
    uint32_t size_on_disk;
    char reserved[64];
} mime_part_info;

/* One element of a header field value chain. */
typedef struct mime_hdr_field {
    char *text;
    char *charset; /* buffer of 50 bytes; empty for a plain run */
    int32_t encoding; /* 2 Base64, 3 Q, 7 plain */
    struct mime_hdr_field *next;
} mime_hdr_field;

/* The five address chains of a message, in this order. */
typedef struct mime_address_lists {
    mime_hdr_field *to;
    mime_hdr_field *from;
    mime_hdr_field *cc;
    mime_hdr_field *bcc;
    mime_hdr_field *subject;
} mime_address_lists;

/* ---- Callbacks -------------------------------------------------------------- */

/* Composition through create_message / create_message_x. */
typedef int32_t (*mime_next_part_cb)(mime_part_info *info);
typedef int32_t (*mime_body_cb)(char *buffer, int32_t size, int32_t *is_file);
typedef int32_t (*mime_done_cb)(int32_t lines, int32_t bytes);
typedef int32_t (*mime_extra_header_cb)(char *buffer, int32_t size);
typedef int32_t (*mime_output_cb)(const char *data, int32_t length);

/* Composition through create_ex_message: every callback gets user_value. */
typedef int32_t (*mime_ex_next_part_cb)(mime_part_desc *record, char *extra_buffer,
                                        int32_t extra_size, intptr_t user_value);
typedef int32_t (*mime_ex_body_cb)(char *buffer, int32_t size, int32_t *is_file,
                                   intptr_t user_value);
typedef int32_t (*mime_ex_output_cb)(const char *data, int32_t length, intptr_t user_value);

/* Extraction into a directory. The result of extract_callback is not read. */
typedef int32_t (*mime_extract_callback)(const char *name, int32_t level, int32_t type);
typedef int32_t (*mime_extract_sink)(const char *data, int32_t length);

/* Streaming extraction. */
typedef int32_t (*mime_header_cb)(mime_part_desc *part, const char *text, int32_t length,
                                  intptr_t user_value);
typedef int32_t (*mime_session_body_cb)(const char *data, int32_t length, int32_t *state,
                                        intptr_t user_value);
typedef int32_t (*mime_address_cb)(mime_address_lists *lists, intptr_t user_value);

/* ---- Exports ---------------------------------------------------------------- */

/* Composition. */
TARNWICK_API int32_t create_message(const char *to, const char *from, const char *subject,
                                    const char *cc, const char *bcc,
                                    const mime_part_info *part_info, const char *message_path,
                                    mime_next_part_cb next_part_cb, mime_body_cb body_cb,
                                    mime_done_cb done_cb, mime_extra_header_cb extra_header_cb,
                                    int32_t mime, int32_t newsgroups);
TARNWICK_API int32_t create_message_x(const char *to, const char *from, const char *subject,
                                      const char *cc, const char *bcc,
                                      const mime_part_info *part_info,
                                      mime_next_part_cb next_part_cb, mime_body_cb body_cb,
                                      mime_done_cb done_cb,
                                      mime_extra_header_cb extra_header_cb,
                                      mime_output_cb output_cb, int32_t mime,
                                      int32_t newsgroups);
TARNWICK_API int32_t create_ex_message(const mime_address_lists *fields,
                                       const char *message_path, mime_ex_output_cb output_cb,
                                       mime_ex_next_part_cb next_part_cb,
                                       mime_ex_body_cb body_cb, int32_t mime,
                                       int32_t newsgroups, intptr_t user_value);

/* Extraction into a directory. */
TARNWICK_API int32_t extract_message(const char *message_path,
                                     mime_extract_callback extract_callback,
                                     const char *directory);
TARNWICK_API int32_t extract_message_x(const char *data, int32_t length,
                                       mime_extract_callback extract_callback,
                                       mime_extract_sink extract_sink);

/* Streaming extraction. */
TARNWICK_API int32_t mime_extract_start(mime_header_cb header_cb, mime_session_body_cb body_cb,
                                        mime_address_cb address_cb, const char *directory,
                                        intptr_t user_value);
TARNWICK_API int32_t mime_extract_data(int32_t handle, const char *data, int32_t length,
                                       int32_t is_path);
TARNWICK_API int32_t mime_extract_end(int32_t *handle_pointer);
TARNWICK_API int32_t mime_extract_end_ex(int32_t *handle_pointer);

/* File codecs. */
TARNWICK_API int32_t base64_encode(const char *source_path, const char *target_path);
TARNWICK_API int32_t base64_decode(const char *source_path, const char *target_path);
TARNWICK_API int32_t quoted_encode(const char *source_path, const char *target_path);
TARNWICK_API int32_t quoted_decode(const char *source_path, const char *target_path);
TARNWICK_API int32_t uuencode(const char *source_path, const char *target_path,
                              const char *name);
/* name_out: a buffer of at least 256 bytes. */
TARNWICK_API int32_t uudecode(const char *source_path, const char *target_path,
                              char *name_out);
TARNWICK_API int32_t binhex_enc(const char *data_fork_path, const char *resource_fork_path,
                                const char *target_path, binhex_info info);
/* second_path: a buffer of at least 1024 bytes. */
TARNWICK_API int32_t binhex_dec(const char *source_path, const char *target_path,
                                char *second_path, binhex_info *info);

/* Header fields. */
TARNWICK_API int32_t mime_encode_HdrField(const mime_hdr_field *field, char *out,
                                          int32_t *out_length);
TARNWICK_API mime_hdr_field *mime_decode_HdrField(char *text);
TARNWICK_API int32_t mime_FreeList(mime_hdr_field *list);

/* Options. */
TARNWICK_API int32_t mime_options(int32_t selector, intptr_t argument, intptr_t reserved);

/* ---- Layout checks ------------------------------------------------------------ */

#ifdef __cplusplus
#define TARNWICK_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define TARNWICK_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif

TARNWICK_STATIC_ASSERT(sizeof(binhex_info) == 268, "binhex_info is 268 bytes");
TARNWICK_STATIC_ASSERT(offsetof(binhex_info, flags) == 266, "binhex_info.flags");
TARNWICK_STATIC_ASSERT(sizeof(mime_external_body_parameters) == 1028, "external-body");
TARNWICK_STATIC_ASSERT(offsetof(mime_external_body_parameters, size) == 824,
                       "external-body size");
TARNWICK_STATIC_ASSERT(sizeof(mime_part_parameters) == 1028, "parameters are 1028 bytes");
TARNWICK_STATIC_ASSERT(offsetof(mime_partial_parameters, part_id) == 8, "partial part_id");
TARNWICK_STATIC_ASSERT(sizeof(mime_part_desc) == 6160, "mime_part_desc is 6160 bytes");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, description) == 1550, "desc.description");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, parameters) == 2064, "desc.parameters");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, size_on_disk) == 3092, "desc.size_on_disk");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, binhex_info) == 3096, "desc.binhex_info");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, x_mailer) == 3364, "desc.x_mailer");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, priority) == 3514, "desc.priority");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, signed_flag) == 3518, "desc.signed_flag");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, returned_subject) == 3521,
                       "desc.returned_subject");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, date_value) == 3596, "desc.date_value");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, received_value) == 3600,
                       "desc.received_value");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_desc, message_address) == 3604,
                       "desc.message_address");
TARNWICK_STATIC_ASSERT(sizeof(mime_part_info) == 1524, "mime_part_info is 1524 bytes");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_info, content_subtype) == 406, "info.subtype");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_info, parameters) == 428, "info.parameters");
TARNWICK_STATIC_ASSERT(offsetof(mime_part_info, size_on_disk) == 1456, "info.size_on_disk");

#undef TARNWICK_STATIC_ASSERT

#ifdef __cplusplus
}
#endif

#endif /* TARNWICK_H */
