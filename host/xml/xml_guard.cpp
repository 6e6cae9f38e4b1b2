#include "host/xml/xml_guard.h"

#include "host/xml/xml_text.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"

#include <ACEXML/common/InputSource.h>
#include <ACEXML/common/StrCharStream.h>

#include <cctype>
#include <cerrno>
#include <memory>
#include <string>
#include <sys/mman.h>

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
    std::string text;
    std::string fault;
    if (read_all(file.get(), text, MAX_SIZE) == -1)
        return -1;
    if (!normalise_xml(text, fault)) {
        QMRT_LOG(LM_ERROR, "Failed to read XML %s, %s\n", path, fault.c_str());
        errno = EILSEQ;
        return -1;
    }
    File_Descriptor const normal(memfd_create("xml", MFD_CLOEXEC));
    if (!normal || write_all(normal.get(), text.data(), text.size()) == -1)
        return -1;
    std::string const link = "/proc/self/fd/" + std::to_string(normal.get());
    return ACEXML_FileCharStream::open(link.c_str()) == 0 ? 0 : -1;
}

int Xml_File::get(ACEXML_Char& character) {
    if (++read_ > MAX_SIZE) // it has grown since
        throw ACEXML_SAXParseException("The file is too large");
    int const result = check_end(ACEXML_FileCharStream::get(character));
    if (result == 0)
        check_character(static_cast<unsigned char>(character));
    return result;
}

void Xml_File::check_character(unsigned char character) {
    bool const is_blank = std::isspace(character) != 0;
    bool const begins_name =
        character < 0x80 && (std::isalpha(character) || character == '_' || character == ':');
    if (character < ' ' && !is_blank)
        throw ACEXML_SAXParseException("A character that XML does not have");
    // the parser would take a null pointer for the name that is not there
    if (before_ == '\0' && !is_blank && character != '<' && character < 0x80)
        throw ACEXML_SAXParseException("The file does not begin with an element");
    if (before_ == '<' && last_ == '?' && !begins_name)
        throw ACEXML_SAXParseException("An instruction has no name");
    if (before_ != '\0' || !is_blank) {
        before_ = before_ == '\0' ? '<' : last_;
        last_ = character;
    }
}

int Xml_File::peek() {
    return check_end(ACEXML_FileCharStream::peek());
}

int Xml_File::check_end(int result) {
    // a few looks beyond the end are the parser's own way to find a well-formed file's end
    constexpr int ENOUGH = 100;
    bool const in_instruction = before_ == '<' && last_ == '?';
    if (result == -1 && (in_instruction || ++ends_ > ENOUGH))
        throw ACEXML_SAXParseException("Unexpected end-of-file");
    return result;
}
