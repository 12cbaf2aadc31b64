/*
 * The SAX XML reader: reads a document from a stream and calls back for start tags with their attributes, end
 * tags, text and comments, in the order of the document. No tree is built.
 *
 * It reads a small subset of XML, and gives up at anything else:
 *
 * - Tags: <name>, <name/>, </name>. Names are ASCII letters and digits. No tab or line break may stand right
 *   behind the name of a start tag, nor any blank in an end tag.
 * - Attributes: attribute="value". Names begin with a letter and have letters and "-". Double quotes only, no
 *   blanks around "=". Values come as they are written, references too.
 * - Text: blanks between tags are text, too. A ">" in text is an error.
 * - References in text: &lt; &gt; &amp; &quot; &apos; and others of lower case letters and digits. Only the
 *   first one of a document is decoded. Later ones, and an unknown name, are left out.
 * - Comments: <!-- ... -->, reported with one "-" of the end: "<!--ab-->" as "ab-".
 * - <?...> and <!D...> are left out up to the next ">", also one in quotes or in a DOCTYPE's brackets.
 *
 * There are no numeric references and no CDATA sections. The reader does not check that tags match, that
 * there is one root element, or that the document is UTF-8. Names and values have up to 256 bytes, as have
 * the names of all references of a document together; text and comments may be of any length.
 *
 * Memory: one context of fixed size, and the attributes of the tag that is being read, which may have 16 MiB:
 * 12 bytes for each on 32-bit machines, 24 on 64-bit machines, and its name and value with a NUL each.
 *
 * Errors: the error callback is told once, then -1 is returned, with errno as sax_parse_file says. Nothing is
 * logged.
 * Ownership: the stream, the callbacks and the cookie are the caller's; what callbacks are shown is the
 * reader's.
 * Threads: callbacks run on the calling thread.
 */
#ifndef QVLIB_SAX_H
#define QVLIB_SAX_H

#include <stddef.h>
#include <stdio.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* An attribute of a start tag. */
typedef struct sax_attribute {
    char *name;                 /* NUL-terminated */
    char *value;                /* NUL-terminated */
    struct sax_attribute *next; /* the one written before it; NULL at the tag's first */
} sax_attribute;

/*
 * The caller's functions. The reader keeps the pointer to this record and looks into it at each call. Members
 * may be NULL as far as said here.
 *
 * `context` begins with the current element's name, NUL-terminated: (const char *)context. `cookie` is the
 * value that sax_parse_file was given. Names, texts and attributes live as long as the call; copy what is to
 * be kept. Where a byte 0 stands in the document, texts without a length seem to end there.
 *
 * When a function is called, the stream has been read up to and including the byte that brought the call
 * about, and its lock is free. A function may read from the stream; the reader goes on behind that. It must
 * not close it.
 *
 * The messages of `error` are
 *
 *   "Invalid XML Document"                a ">" in text, or "<!-" or "--" in a comment that goes on wrongly
 *   "Invalid XML Document: Invalid State (2: '_') on line 0."
 *                                         a byte that nothing accepts: the reader's state and the byte,
 *                                         "0x0a" for one that cannot be printed; lines count from 0
 *   "XML identifier exceeded buffer"      a name or a value of more than 256 bytes, or entity names of more
 *                                         than 256 bytes in total
 *   "A required callback is missing"      `end` or `characters` is NULL and had to be called
 *   "Cannot allocate memory"
 */
typedef struct {
    /* A start tag is complete: "<a x="1">", or "<a/>", for which `end` follows at once. `attributes` begins
     * with the tag's last attribute, NULL for none; inside an end call it is still valid. May be NULL. */
    void (*start)(void *context, const sax_attribute *attributes, void *cookie);

    /* An end tag is complete, or an empty element has been started. May be NULL for a document without end
     * tags; empty elements do without it. */
    void (*end)(void *context, void *cookie);

    /* Never called; NULL. */
    void (*reserved1)(void);

    /* Never called; NULL. */
    void (*reserved2)(void);

    /* Text, of `length` bytes, 1 to 256, and a NUL: called before the next "<", and in between whenever 256
     * bytes have come together and another one follows. Comments of more than 256 bytes come here, too, 256
     * at a time, but for their rest. Text behind the last tag is not reported. May be NULL for a document
     * without text; 256 bytes at once are dropped then, but text before a "<" is an error. */
    void (*characters)(const char *text, size_t length, void *cookie);

    /* A comment is complete: up to 256 bytes of it, its end "-->" shortened to "-". May be NULL. */
    void (*comment)(const char *text, void *cookie, void *context);

    /* The document is at fault, or memory is short: called once, before sax_parse_file returns -1. NULL
     * leaves the result alone to tell. The messages:
     *
     * "Invalid XML Document"
     *     A ">" in text, "<!-" without a second "-", or "--" in a comment without a ">" behind it.
     * "Invalid XML Document: Invalid State (2: '_') on line 0."
     *     A byte that nothing accepts. The number is the reader's state. A byte that cannot be printed is
     *     shown as 0x0a is, without quotes, and a zero as 00. Lines count from 0.
     * "XML identifier exceeded buffer"
     *     A name or a value of more than 256 bytes, or more than 256 bytes of references' names in total.
     * "A required callback is missing"
     *     `end` or `characters` is NULL and had to be called.
     * "Cannot allocate memory"
     *     Memory is short, or a tag has more attributes than the 16 MiB above hold. */
    void (*error)(const char *message, void *cookie);
} sax_callbacks;

/*
 * Reads a document to the stream's end.
 *
 * stream     open for reading; read from where it stands, by bytes
 * callbacks  what to call; must stay valid during the call
 * cookie     handed to every callback; may be NULL
 *
 * Returns 0 at the end of the stream, also within a tag or a comment, whose rest is dropped without a word,
 * and where reading failed: look at ferror(stream). Returns -1 after an error, which the error callback has
 * been told; errno is then ENOMEM after "Cannot allocate memory" and EINVAL when a callback was missing.
 * Returns -1 with errno EINVAL, and calls nothing, when stream or callbacks are NULL. After an error the
 * stream stands behind the byte that was wrong. Logs nothing.
 *
 * Text from a pipe or a socket is reported as soon as it has come: the reader waits for a byte only when it
 * has dealt with all before.
 *
 * Ownership: the stream stays open and the caller's. The attributes of a tag that an error or the end of the
 * stream cuts short are never freed.
 * Threads: calls on different streams may run at the same time. Callbacks run on the calling thread.
 */
int sax_parse_file(FILE *stream, const sax_callbacks *callbacks, void *cookie);

QV_END_DECLS

#endif
