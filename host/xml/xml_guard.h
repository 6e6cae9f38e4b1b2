#ifndef HOST_XML_XML_GUARD_H
#define HOST_XML_XML_GUARD_H

#include <ACEXML/common/DefaultHandler.h>
#include <ACEXML/common/FileCharStream.h>

#include <cstdint>

/**
 * Stands between the parser and a handler: hands the content on, and keeps a hostile file from
 * doing harm. The parser calls itself once for each level of nesting, so the depth is bounded; what
 * a file wants to bring in from elsewhere comes out empty.
 */
class Xml_Guard : public ACEXML_DefaultHandler {
public:
    static constexpr int MAX_DEPTH = 100;

    explicit Xml_Guard(ACEXML_DefaultHandler& handler) : handler_(handler) {}

    void startElement(ACEXML_Char const* uri, ACEXML_Char const* name, ACEXML_Char const* qname,
                      ACEXML_Attributes* atts) override;
    void endElement(ACEXML_Char const* uri, ACEXML_Char const* name,
                    ACEXML_Char const* qname) override;
    void characters(ACEXML_Char const* text, size_t start, size_t length) override;
    ACEXML_InputSource* resolveEntity(ACEXML_Char const* public_id,
                                      ACEXML_Char const* system_id) override;

private:
    ACEXML_DefaultHandler& handler_;
    int depth_ = 0;
};

/**
 * A file for the parser that ends: inside of a comment, a CDATA section or an instruction that is
 * not closed the parser would ask for the next character for ever.
 */
class Xml_File : public ACEXML_FileCharStream {
public:
    static constexpr uint64_t MAX_SIZE = 16 * 1024 * 1024;

    /** Opens a file that open_guarded() takes. @return 0, or -1 with errno. */
    int open(ACEXML_Char const* path);

    int get(ACEXML_Char& character) override;
    int peek() override;

private:
    int check_end(int result);
    /** Throws for a file on which the parser would end the process. */
    void check_character(unsigned char character);

    unsigned char before_ = '\0'; ///< the last two characters; NUL before the first one
    unsigned char last_ = '\0';
    int ends_ = 0; ///< how often the end was read
    uint64_t read_ = 0;
};

#endif
