#include "host/xml/parse_xml.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Writes down what it is told. */
struct Recorder : ACEXML_DefaultHandler {
    void startElement(ACEXML_Char const*, ACEXML_Char const* name, ACEXML_Char const*,
                      ACEXML_Attributes* atts) override {
        events += std::string("<") + name;
        for (size_t index = 0; atts && index < atts->getLength(); ++index)
            events += std::string(" ") + atts->getQName(index) + "=" + atts->getValue(index);
        events += ">";
    }
    void endElement(ACEXML_Char const*, ACEXML_Char const* name, ACEXML_Char const*) override {
        events += std::string("</") + name + ">";
    }
    void characters(ACEXML_Char const* text, size_t start, size_t length) override {
        events.append(text + start, length);
    }
    std::string events;
};

class Parse_Xml_Test : public testing::Test {
protected:
    bool parse(std::string const& text) {
        return parse_xml(files_.write("file.xml", text).c_str(), recorder_);
    }
    std::string failure() { return "Failed to parse XML " + files_.path("file.xml") + ", "; }

    Temporary_Directory files_;
    Recorder recorder_;
};

TEST_F(Parse_Xml_Test, events_come_in_the_order_of_the_file) {
    EXPECT_TRUE(parse("<?xml version=\"1.0\"?><a x=\"1\" y='2'>t<b/></a>"));
    EXPECT_EQ("<a x=1 y=2>t<b></b></a>", recorder_.events);
}

TEST_F(Parse_Xml_Test, a_missing_path_is_a_broken_precondition) {
    EXPECT_FALSE(parse_xml(nullptr, recorder_));
    EXPECT_CHECK_LOGGED("path is NULL or \"\"");
    EXPECT_FALSE(parse_xml("", recorder_));
    EXPECT_CHECK_LOGGED("path is NULL or \"\"");
}

TEST_F(Parse_Xml_Test, what_is_no_file_cannot_be_opened) {
    EXPECT_FALSE(parse_xml(files_.path("none").c_str(), recorder_));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML " + files_.path("none") + "\n");
    EXPECT_FALSE(parse_xml(files_.path().c_str(), recorder_));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML " + files_.path() + "\n");
    ASSERT_EQ(0, mkfifo(files_.path("fifo").c_str(), 0600));
    EXPECT_FALSE(parse_xml(files_.path("fifo").c_str(), recorder_));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML " + files_.path("fifo") + "\n");
}

TEST_F(Parse_Xml_Test, what_has_no_end_is_not_opened) {
    EXPECT_FALSE(parse_xml("/dev/zero", recorder_));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML /dev/zero\n");
    ASSERT_EQ(0, chmod(files_.path().c_str(), 01777));
    files_.write("file.xml", "<a/>");
    ASSERT_EQ(0, symlink("file.xml", files_.path("link").c_str()));
    EXPECT_FALSE(parse_xml(files_.path("link").c_str(), recorder_));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML " + files_.path("link") + "\n");
    std::string const text = "<a>" + std::string(Xml_File::MAX_SIZE, ' ') + "</a>";
    EXPECT_FALSE(parse_xml(files_.write("large.xml", text).c_str(), recorder_));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML " + files_.path("large.xml") + "\n");
}

TEST_F(Parse_Xml_Test, faults_are_told_and_what_came_before_was_seen) {
    for (char const* text :
         {"<a><b></a>", "garbage", "<a x=1/>", "<a x='1' x='2'/>", "<a>", "<a x=\"1", "<a b",
          "\x01\x02\x03\x04", "<a>&", "<a>&x", "<!DOCTYPE", "<!DOCTYPE r [<!ENTITY"}) {
        EXPECT_FALSE(parse(text)) << text;
        EXPECT_LOGGED(LM_ERROR, failure());
    }
    recorder_.events.clear();
    EXPECT_FALSE(parse("<a><b></a>"));
    EXPECT_LOGGED(LM_ERROR, failure());
    EXPECT_EQ("<a><b>", recorder_.events);
}

TEST_F(Parse_Xml_Test, an_instruction_without_a_name_is_a_fault_and_no_crash) {
    for (char const* text : {"?6?xm6?xm&e&e", "<?VICE>\x01\x91<?\xe8>>", "<?", "<? xml?><a/>",
                             "<a><?1 x?></a>", " x<a/>", "<a>\x01</a>", "<E>\x01\x91<?", "<E><?"}) {
        EXPECT_FALSE(parse(text)) << text;
        EXPECT_LOGGED(LM_ERROR, "XML " + files_.path("file.xml"));
    }
    EXPECT_TRUE(parse("<a><?pi x?></a>"));
}

TEST_F(Parse_Xml_Test, the_end_inside_of_what_is_not_closed_is_a_fault_and_no_endless_loop) {
    for (char const* text : {"<a><!-- </a>", "<a><![CDATA[ x", "<a><?pi", "<!-- x", "<?pi "}) {
        EXPECT_FALSE(parse(text)) << text;
        EXPECT_LOGGED(LM_ERROR, failure());
    }
}

TEST_F(Parse_Xml_Test, an_empty_file_cannot_be_read) {
    EXPECT_FALSE(parse(""));
    EXPECT_LOGGED(LM_ERROR, "XML " + files_.path("file.xml"));
}

TEST_F(Parse_Xml_Test, text_cut_anywhere_is_a_fault_and_no_crash) {
    std::string const text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><ROOT><CLUSTER>"
                             "<PARAM name=\"clusterName\" value=\"c\"/></CLUSTER></ROOT>";
    ASSERT_TRUE(parse(text));
    for (size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(parse(text.substr(0, length))) << text.substr(0, length);
        EXPECT_LOGGED(LM_ERROR, "XML " + files_.path("file.xml"));
    }
}

TEST_F(Parse_Xml_Test, deep_nesting_is_a_fault_and_no_crash) {
    std::string nested;
    for (int depth = 0; depth < Xml_Guard::MAX_DEPTH; ++depth)
        nested = "<a>" + nested + "</a>";
    EXPECT_TRUE(parse(nested));
    EXPECT_FALSE(parse("<a>" + nested + "</a>"));
    EXPECT_LOGGED(LM_ERROR, failure() + "Elements are nested too deeply");
    std::string deep;
    for (int depth = 0; depth < 200000; ++depth)
        deep += "<a>";
    EXPECT_FALSE(parse(deep));
    EXPECT_LOGGED(LM_ERROR, failure() + "Elements are nested too deeply");
}

TEST_F(Parse_Xml_Test, a_file_may_begin_with_comments) {
    for (std::string const begin :
         {"<!-- a copyright -->", "<!-- one -->\n<!-- two -->\n ", "\n<!-- < & > \xc3\xa9 -->",
          "<?xml version=\"1.0\"?><!-- one -->",
          "<?xml version=\"1.0\"?>\n<!-- one --><!-- -->\n"}) {
        recorder_.events.clear();
        EXPECT_TRUE(parse(begin + "<a x=\"1\">t</a>")) << begin;
        EXPECT_EQ("<a x=1>t</a>", recorder_.events) << begin;
    }
    EXPECT_FALSE(parse("<!-- a -- b --><a/>"));
    EXPECT_LOGGED(LM_ERROR, failure());
}

TEST_F(Parse_Xml_Test, references_to_characters_beyond_ascii_are_these_characters) {
    EXPECT_TRUE(parse("<a x=\"&#233;&#xE9;&#x4e2d;&#128512;\">&#65;&#xe9;</a>"));
    EXPECT_EQ("<a x=\xc3\xa9\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80>A\xc3\xa9</a>", recorder_.events);
    recorder_.events.clear();
    EXPECT_TRUE(parse("<a><!-- &#233; --><![CDATA[&#233;]]></a>"));
    EXPECT_EQ("<a>&#233;</a>", recorder_.events);
    for (char const* text : {"<a>&#xd800;</a>", "<a>&#x110000;</a>", "<a>&#99999999999;</a>",
                             "<a>&#xe9</a>", "<a>&#;</a>"}) {
        EXPECT_FALSE(parse(text)) << text;
        EXPECT_LOGGED(LM_ERROR, failure());
    }
}

TEST_F(Parse_Xml_Test, a_file_has_the_encoding_that_it_declares_or_begins_with) {
    using namespace std::string_literals;
    std::string const wide = "<\0a\0>\0\xe9\0<\0/\0a\0>\0"s;
    struct Case {
        std::string text;
        std::string content;
    };
    for (Case const& one :
         {Case{"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xe9</a>", "\xc3\xa9"},
          {"<?xml version='1.0' encoding='GBK' standalone='yes'?><a>\xd6\xd0</a>", "\xe4\xb8\xad"},
          {"<?xml version=\"1.0\" encoding=\"utf-8\"?><a>\xc3\xa9</a>", "\xc3\xa9"},
          {"<?xml version=\"1.0\" encoding=\"US-ASCII\"?><a>e</a>", "e"},
          {"\xef\xbb\xbf<a>\xc3\xa9</a>", "\xc3\xa9"},
          {"\xff\xfe" + wide, "\xc3\xa9"},
          {wide, "\xc3\xa9"}}) {
        recorder_.events.clear();
        EXPECT_TRUE(parse(one.text)) << one.text;
        EXPECT_EQ("<a>" + one.content + "</a>", recorder_.events) << one.text;
    }
    for (char const* text : {"<?xml version=\"1.0\" encoding=\"KLINGON\"?><a/>",
                             "<?xml version=\"1.0\" encoding=\"GBK\"?><a>\xff</a>"}) {
        EXPECT_FALSE(parse(text)) << text;
        EXPECT_LOGGED(LM_ERROR, "it has an unknown encoding, or bytes that are not of it: ");
        EXPECT_LOGGED(LM_ERROR, " Failed to open XML ");
    }
}

TEST_F(Parse_Xml_Test, entities_bring_nothing_in_from_outside_the_file) {
    std::string const secret = files_.write("secret", "SECRET");
    EXPECT_TRUE(parse("<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY x SYSTEM \"" + secret +
                      "\">]><r a=\"1&x;\">&x;</r>"));
    EXPECT_EQ(std::string::npos, recorder_.events.find("SECRET"));
    EXPECT_TRUE(parse("<?xml version=\"1.0\"?><!DOCTYPE r SYSTEM \"" + secret + "\"><r>k</r>"));
    EXPECT_EQ(std::string::npos, recorder_.events.find("SECRET"));
}

TEST_F(Parse_Xml_Test, entities_that_multiply_stay_small) {
    std::string text = "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY e0 \"aaaaaaaaaa\">";
    for (int level = 1; level < 10; ++level) {
        text += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int times = 0; times < 10; ++times)
            text += "&e" + std::to_string(level - 1) + ";";
        text += "\">";
    }
    EXPECT_TRUE(parse(text + "]><r a=\"&e9;\">&e9;</r>"));
    EXPECT_GT(1000u, recorder_.events.size());
}

} // namespace
