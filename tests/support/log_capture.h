#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Priority.h>

#include <mutex>
#include <string>
#include <vector>

/**
 * Holds every line that any thread of the test process logs. The test main installs it; a test
 * claims the lines it expects, and a warning or worse that no test claimed fails that test.
 */
class Log_Capture : public ACE_Log_Msg_Backend {
public:
    struct Line {
        ACE_Log_Priority priority;
        std::string text;
        bool claimed;
    };

    static Log_Capture& instance();

    /**
     * Claims the first unclaimed line of that priority that has @a text in it.
     * @return false when there is none.
     */
    bool claim(ACE_Log_Priority priority, std::string const& text);
    /** Claims all lines of that priority that have @a text in them, and counts them. */
    size_t claim_all(ACE_Log_Priority priority, std::string const& text);
    /** True when a line, claimed or not, of any priority has @a text in it. */
    bool contains(std::string const& text) const;
    /** All lines so far, one a line, for messages. */
    std::string dump() const;
    /** Warnings and worse that nobody claimed. */
    std::vector<Line> unclaimed() const;
    void clear();

    int open(char const* logger_key) override;
    int reset() override;
    int close() override;
    ssize_t log(ACE_Log_Record& record) override;

private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

/** Passes when such a line was logged, and claims it. */
#define EXPECT_LOGGED(priority, text)                                                              \
    EXPECT_TRUE(Log_Capture::instance().claim(priority, text))                                     \
        << "not logged: " << (text) << "\nlogged:\n"                                               \
        << Log_Capture::instance().dump()

/** Passes when no line has the text. */
#define EXPECT_NOT_LOGGED(text)                                                                    \
    EXPECT_FALSE(Log_Capture::instance().contains(text)) << "logged:\n"                            \
                                                         << Log_Capture::instance().dump()

/** The line that a broken precondition leaves: name "x is NULL", "x is NULL or \"\"" and so on. */
#define EXPECT_CHECK_LOGGED_AT(priority, fault)                                                    \
    EXPECT_TRUE(Log_Capture::instance().claim(priority, std::string(", ") + (fault) + ":\n"))      \
        << "no check: " << (fault) << "\nlogged:\n"                                                \
        << Log_Capture::instance().dump()
#define EXPECT_CHECK_LOGGED(fault) EXPECT_CHECK_LOGGED_AT(LM_EMERGENCY, fault)

#endif
