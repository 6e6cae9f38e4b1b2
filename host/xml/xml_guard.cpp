#include "host/xml/xml_guard.h"

#include "qmrt/guarded_file.h"

#include <ACEXML/common/InputSource.h>
#include <ACEXML/common/StrCharStream.h>

#include <memory>
#include <string>

void Xml_Guard::startElement(ACEXML_Char const* uri, ACEXML_Char const* name,
                             ACEXML_Char const* qname, ACEXML_Attributes* atts) {
    if (++depth_ > MAX_DEPTH)
        throw ACEXML_SAXParseException("Elements are nested too deeply");
    handler_.startElement(uri, name, qname, atts);
}

void Xml_Guard::endElement(ACEXML_Char const* uri, ACEXML_Char const* name,
                           ACEXML_Char const* qname) {
    --depth_;
    handler_.endElement(uri, name, qname);
}

void Xml_Guard::characters(ACEXML_Char const* text, size_t start, size_t length) {
    handler_.characters(text, start, length);
}

ACEXML_InputSource* Xml_Guard::resolveEntity(ACEXML_Char const*, ACEXML_Char const* system_id) {
    auto empty = std::make_unique<ACEXML_StrCharStream>();
    if (empty->open(" ", system_id) != 0)
        throw ACEXML_SAXParseException("Nothing outside of the file is read");
    return new ACEXML_InputSource(empty.release());
}

int Xml_File::open(ACEXML_Char const* path) {
    File_Descriptor const file = open_guarded(path, {.max_size = MAX_SIZE});
    if (!file)
        return -1;
    // by the descriptor, since another file may have taken the name
    std::string const link = "/proc/self/fd/" + std::to_string(file.get());
    return ACEXML_FileCharStream::open(link.c_str()) == 0 ? 0 : -1;
}

int Xml_File::get(ACEXML_Char& character) {
    if (++read_ > MAX_SIZE) // it has grown since
        throw ACEXML_SAXParseException("The file is too large");
    return check_end(ACEXML_FileCharStream::get(character));
}

int Xml_File::peek() {
    return check_end(ACEXML_FileCharStream::peek());
}

int Xml_File::check_end(int result) {
    // a few looks beyond the end are the parser's own way to find a well-formed file's end
    constexpr int ENOUGH = 100;
    if (result == -1 && ++ends_ > ENOUGH)
        throw ACEXML_SAXParseException("Unexpected end-of-file");
    return result;
}
