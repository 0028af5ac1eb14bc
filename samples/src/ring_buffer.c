/* A fixed-size ring buffer of bytes: one writer, one reader, no allocation after creation. */
#include <stdlib.h>
#include <string.h>

struct ring {
    unsigned char *data;
    size_t size; /* capacity in bytes */
    size_t head; /* next byte to write */
    size_t tail; /* next byte to read */
    size_t used; /* bytes waiting to be read */
};

struct ring *ring_create(size_t size)
{
    struct ring *r = calloc(1, sizeof *r);
    if (r == NULL) {
        return NULL;
    }
    r->data = malloc(size);
    if (r->data == NULL) {
        free(r);
        return NULL;
    }
    r->size = size;
    return r;
}

/* Copies up to n bytes in; returns how many fitted. */
size_t ring_write(struct ring *r, const void *src, size_t n)
{
    const unsigned char *p = src;
    size_t done = 0;
    while (done < n && r->used < r->size) {
        r->data[r->head] = p[done++];
        r->head = (r->head + 1) % r->size;
        r->used++;
    }
    return done;
}

/* Copies up to n bytes out; returns how many were waiting. */
size_t ring_read(struct ring *r, void *dst, size_t n)
{
    unsigned char *p = dst;
    size_t done = 0;
    while (done < n && r->used > 0) {
        p[done++] = r->data[r->tail];
        r->tail = (r->tail + 1) % r->size;
        r->used--;
    }
    return done;
}

void ring_free(struct ring *r)
{
    if (r != NULL) {
        free(r->data);
        free(r);
    }
}
