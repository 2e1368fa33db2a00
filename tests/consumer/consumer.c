/* An application's view: compose the single text message of the manual
 * with a fixed date and compare it byte for byte. */
#include <stdio.h>
#include <string.h>

#include <tarnwick.h>

static int body_calls;

static int32_t body(char *buffer, int32_t size, int32_t *is_file) {
    static const char text[] = "Hi there\r\n";
    (void)size;
    if (body_calls++ > 0)
        return 0;
    *is_file = 0;
    memcpy(buffer, text, sizeof text - 1);
    return (int32_t)(sizeof text - 1);
}

int main(void) {
    static const char expected[] = "From: Bob\r\n"
                                   "Date: Wed, 2 Jan 1980 02:03:55\r\n"
                                   "To: Ann\r\n"
                                   "Subject: Hello\r\n"
                                   "MIME-VERSION: 1.0\r\n"
                                   "Content-type: text/plain\r\n"
                                   "\r\n"
                                   "Hi there\r\n";
    char got[512];
    size_t n;
    FILE *f;

    remove("hello.eml");
    if (mime_options(MIME_OPT_SET_DATE, (intptr_t) "Wed, 2 Jan 1980 02:03:55", 0) != MIME_OK)
        return 2;
    if (create_message("Ann", "Bob", "Hello", NULL, NULL, NULL, "hello.eml", NULL, body, NULL,
                       NULL, 1, 0) != 1)
        return 3;
    f = fopen("hello.eml", "rb");
    if (f == NULL)
        return 4;
    n = fread(got, 1, sizeof got, f);
    fclose(f);
    if (n != sizeof expected - 1 || memcmp(got, expected, n) != 0) {
        fprintf(stderr, "message differs:\n%.*s\n", (int)n, got);
        return 5;
    }
    return 0;
}
