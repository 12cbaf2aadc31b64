// The XML reader beside Expat over the same files of 1 MiB, both reading from a stream and calling the same
// kinds of callbacks; and the stream alone, a byte at a time without its lock, as the limit of any reader
// that takes its bytes so.
//
// What was called back is counted and held against Expat's counts before the clock starts. A file lies in the
// system's cache. Rows are bytes of the document per second.

#include <qvlib/sax.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#if HAVE_EXPAT
#include <expat.h>
#endif

namespace
{

constexpr size_t document_size = 1 << 20;

struct close_file {
    void operator()(FILE *file) const
    {
        fclose(file);
    }
};

using file = std::unique_ptr<FILE, close_file>;

// What a device says about itself: many small elements with attributes.
std::string device_description()
{
    std::string text = "<?xml version=\"1.0\"?>\n<device>\n";
    for (int port = 0; text.size() < document_size; port++) {
        const std::string number = std::to_string(port);
        text += "  <port id=\"fc" + number +
                "\" type=\"n-port\">\n    <speed unit=\"Gbit\">8</speed>\n"
                "    <address>210000005ea0f7" +
                number +
                "</address>\n    <enabled/>\n"
                "    <counters frames=\"" +
                number + "\" errors=\"0\"/>\n  </port>\n";
    }
    return text + "</device>\n";
}

// News: few elements, much text.
std::string feed()
{
    std::string text = "<?xml version=\"1.0\"?>\n<rss version=\"2.0\"><channel><title>Releases</title>\n";
    for (int item = 0; text.size() < document_size; item++) {
        text += "<item><title>Release " + std::to_string(item) + "</title>\n<description>";
        for (int sentence = 0; sentence < 6; sentence++)
            text += "This release mends the order in which ports come up after a restart of the unit, and\n"
                    "says in the log which of them had to wait for its neighbour. ";
        text += "</description>\n<link>https://example.com/releases</link></item>\n";
    }
    return text + "</channel></rss>\n";
}

// A drawing: long attribute values.
std::string drawing()
{
    std::string text = "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\">\n";
    for (int shape = 0; text.size() < document_size; shape++) {
        const std::string at = std::to_string(shape % 1000);
        text += "  <path fill=\"none\" stroke-width=\"2\" stroke=\"#1f77b4\" d=\"M " + at + " 0 L " + at +
                " 40 C 12.5 40 25 52.5 25 65 L 25 120 C 25 132.5 37.5 145 50 145 L 200 145\"/>\n";
    }
    return text + "</svg>\n";
}

struct document {
    const char *name;
    std::string (*make)();
};

constexpr document documents[] = {{"device", device_description}, {"feed", feed}, {"drawing", drawing}};

file file_of(const std::string &text)
{
    file made(tmpfile());
    if (!made || fwrite(text.data(), 1, text.size(), made.get()) != text.size() || fflush(made.get()) != 0) {
        perror("sax_bench");
        exit(1);
    }
    return made;
}

struct counts {
    size_t elements = 0, attributes = 0, ends = 0, text = 0;

    bool operator==(const counts &) const = default;
};

void ours_start(void *, const sax_attribute *attributes, void *cookie)
{
    auto *seen = static_cast<counts *>(cookie);
    seen->elements++;
    for (; attributes; attributes = attributes->next)
        seen->attributes++;
}

void ours_end(void *, void *cookie)
{
    static_cast<counts *>(cookie)->ends++;
}

void ours_characters(const char *, size_t length, void *cookie)
{
    static_cast<counts *>(cookie)->text += length;
}

void ours_error(const char *message, void *)
{
    fprintf(stderr, "sax_bench: %s\n", message);
    exit(1);
}

counts ours(FILE *stream)
{
    counts seen;
    const sax_callbacks callbacks = {ours_start,      ours_end, nullptr,   nullptr,
                                     ours_characters, nullptr,  ours_error};
    rewind(stream);
    sax_parse_file(stream, &callbacks, &seen);
    return seen;
}

#if HAVE_EXPAT
void expat_start(void *cookie, const XML_Char *, const XML_Char **attributes)
{
    auto *seen = static_cast<counts *>(cookie);
    seen->elements++;
    for (; *attributes; attributes += 2)
        seen->attributes++;
}

void expat_end(void *cookie, const XML_Char *)
{
    static_cast<counts *>(cookie)->ends++;
}

void expat_characters(void *cookie, const XML_Char *, int length)
{
    static_cast<counts *>(cookie)->text += static_cast<size_t>(length);
}

counts expats(FILE *stream)
{
    constexpr int block = 1 << 16;
    counts seen;
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &seen);
    XML_SetElementHandler(parser, expat_start, expat_end);
    XML_SetCharacterDataHandler(parser, expat_characters);
    rewind(stream);
    for (bool last = false; !last;) {
        const auto got = static_cast<int>(fread(XML_GetBuffer(parser, block), 1, block, stream));
        last = got == 0;
        if (XML_ParseBuffer(parser, got, last) != XML_STATUS_OK) {
            fprintf(stderr, "sax_bench: %s\n", XML_ErrorString(XML_GetErrorCode(parser)));
            exit(1);
        }
    }
    XML_ParserFree(parser);
    return seen;
}

// Text that stands outside the root element is none for Expat: the line ends around it.
void check(const document &which, FILE *stream)
{
    counts right = expats(stream), got = ours(stream);
    right.text += 1;
    if (got != right) {
        fprintf(stderr, "sax_bench: %s: other callbacks than Expat's\n", which.name);
        exit(1);
    }
}
#else
void check(const document &, FILE *)
{
}
#endif

counts stream_alone(FILE *stream)
{
    counts seen;
    rewind(stream);
    flockfile(stream);
    for (int byte; (byte = getc_unlocked(stream)) != EOF;)
        seen.text += static_cast<size_t>(byte);
    funlockfile(stream);
    return seen;
}

void measure(benchmark::State &state, const document &which, counts (*read)(FILE *))
{
    const std::string text = which.make();
    const file stream = file_of(text);
    check(which, stream.get());
    for (auto _ : state)
        benchmark::DoNotOptimize(read(stream.get()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

} // namespace

int main(int argc, char **argv)
{
#if !HAVE_EXPAT
    puts("sax_bench: built without Expat (libexpat1-dev): no rows of it");
#endif
    for (const document &which : documents) {
        const std::string name = which.name;
        benchmark::RegisterBenchmark((name + "/sax_parse_file").c_str(), measure, which, ours);
#if HAVE_EXPAT
        benchmark::RegisterBenchmark((name + "/expat").c_str(), measure, which, expats);
#endif
        benchmark::RegisterBenchmark((name + "/getc_unlocked").c_str(), measure, which, stream_alone);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
