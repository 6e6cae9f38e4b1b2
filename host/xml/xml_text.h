#ifndef HOST_XML_XML_TEXT_H
#define HOST_XML_XML_TEXT_H

#include <string>

/**
 * Brings a file's text into the form that the parser reads, with the same meaning: UTF-8 without a
 * byte order mark, whatever encoding it has or declares; no comments before the root element; and
 * the characters themselves in place of references to characters beyond ASCII.
 * @param fault  gets why that cannot be done: an unknown encoding, or bytes that it does not have
 * @return false with a fault; the text is unchanged then. True for a text that is not XML, which
 * the parser rejects.
 */
[[nodiscard]] bool normalise_xml(std::string& text, std::string& fault);

#endif
