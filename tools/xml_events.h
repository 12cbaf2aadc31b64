// What the library's XML reader calls back for a document, in words.
#ifndef QVL_XML_EVENTS_H
#define QVL_XML_EVENTS_H

#include <optional>
#include <string>
#include "failure.h"

namespace qvl
{

struct xml_events {
    std::string lines;            // one for each event, up to the fault
    std::optional<failure> fault; // at "FILE:LINE", with the reader's message
};

// Reads the document `content` of the file `name`.
xml_events list_xml_events(const std::string &name, const std::string &content);

} // namespace qvl

#endif
