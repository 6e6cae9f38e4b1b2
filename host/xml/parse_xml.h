#ifndef HOST_XML_PARSE_XML_H
#define HOST_XML_PARSE_XML_H

#include "host/xml/xml_guard.h"
#include "qmrt/check.h"

#include <ACEXML/common/InputSource.h>
#include <ACEXML/parser/parser/Parser.h>

#include <memory>

/**
 * Reads an XML file by events: the handler's own startElement, endElement and characters are called
 * in the file's order. The file is not validated, no entity is expanded, and nothing outside of the
 * file is opened. Elements nested deeper than Xml_Guard::MAX_DEPTH are a fault.
 *
 * @tparam Handler  derives from ACEXML_DefaultHandler; the parser sees it through a guard that
 * serves in all four roles (content, DTD, entity resolver, error)
 * @return false, after an error line, when the file cannot be opened or a fault was found; the
 * handler has then seen what came before the fault.
 */
template <typename Handler>
[[nodiscard]] bool parse_xml(char const* path, Handler& handler) {
    if (QMRT_IS_NULL_OR_EMPTY(path))
        return false;
    auto stream = std::make_unique<Xml_File>();
    if (stream->open(path) == -1) {
        QMRT_LOG(LM_ERROR, " Failed to open XML %s\n", path);
        return false;
    }
    Xml_Guard guard(handler);
    ACEXML_InputSource source(stream.release()); // which owns it
    ACEXML_Parser parser;
    parser.setContentHandler(&guard);
    parser.setDTDHandler(&guard);
    parser.setEntityResolver(&guard);
    parser.setErrorHandler(&guard);
    try {
        parser.setFeature("http://xml.org/sax/features/validation", 0);
        parser.parse(&source);
        return true;
    } catch (ACEXML_SAXException& fault) {
        QMRT_LOG(LM_ERROR, "Failed to parse XML %s, %s\n", path, fault.message());
        return false;
    }
}

#endif
