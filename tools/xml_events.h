// What the library's XML reader calls back for a document, in words.
#ifndef QVL_XML_EVENTS_H
#define QVL_XML_EVENTS_H

#include <functional>
#include <string>

namespace qvl
{

// Reads the document `path`, "-" for standard input, and hands its events to `write` as they come, one a
// line, some lines at a time. Throws failure, at "FILE:LINE" with the reader's message where the document is
// refused, after the events before; passes on what `write` throws.
void list_xml_events(const std::string &path, const std::function<void(const std::string &)> &write);

} // namespace qvl

#endif
