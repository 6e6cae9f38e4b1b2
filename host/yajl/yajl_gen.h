#ifndef HOST_YAJL_YAJL_GEN_H
#define HOST_YAJL_YAJL_GEN_H

#include <cstddef>
#include <string>
#include <yajl/yajl_gen.h>

/**
 * Writes JSON text, keys and values alike with <<:
 *
 *     YAJL_Gen gen(raw);
 *     YAJL_Map_Guard const map(gen);
 *     gen << "channels" << channels_;
 *
 * Bytes of a text that are no UTF-8 become U+FFFD, and a double that is no number becomes null. One
 * object is for one thread at a time.
 */
class YAJL_Gen {
public:
    /** A text by where it is and its length; may have NULs in it. */
    struct Str {
        char const* data;
        size_t size;
    };

    /** Writes into a generator of its own, whose text() is the result. */
    YAJL_Gen();
    /** Writes into the caller's generator, which must not be null and lives longer than this. */
    explicit YAJL_Gen(yajl_gen gen) : gen_(gen), owned_(false) {}
    ~YAJL_Gen();
    YAJL_Gen(YAJL_Gen const&) = delete;
    YAJL_Gen& operator=(YAJL_Gen const&) = delete;

    YAJL_Gen& operator<<(Str text);
    YAJL_Gen& operator<<(std::string const& text) { return *this << Str{text.data(), text.size()}; }
    /** A null pointer is written as null. */
    YAJL_Gen& operator<<(char const* text);
    YAJL_Gen& operator<<(bool value);
    YAJL_Gen& operator<<(int value) { return *this << long{value}; }
    YAJL_Gen& operator<<(unsigned int value) { return *this << static_cast<unsigned long>(value); }
    YAJL_Gen& operator<<(long value);
    YAJL_Gen& operator<<(unsigned long value);
    YAJL_Gen& operator<<(double value);
    YAJL_Gen& null();
    /** These would turn into a bool or a number in silence. */
    template <typename T>
    YAJL_Gen& operator<<(T const*) = delete;
    YAJL_Gen& operator<<(char) = delete;

    /**
     * False after something could not be written: a key that is no text, or nested too deeply. From
     * then on nothing more is written: yajl must not be asked after it has failed.
     */
    [[nodiscard]] bool good() const { return status_ == yajl_gen_status_ok; }
    /** yajl's code of the first such failure. */
    yajl_gen_status status() const { return status_; }
    yajl_gen get() const { return gen_; }
    /** What has been written so far, also into the caller's generator. */
    std::string text() const;

    /** Notes how something done on get() itself ended. @return true when it ended well */
    bool note(yajl_gen_status status);

private:
    YAJL_Gen& number(std::string const& text);
    template <typename Write>
    YAJL_Gen& write(Write write);

    yajl_gen gen_;
    bool owned_;
    yajl_gen_status status_ = yajl_gen_status_ok;
};

/**
 * Opens a map or an array, and closes it at the end of the scope, unless it could not be opened.
 */
template <yajl_gen_status (*OPEN)(yajl_gen), yajl_gen_status (*CLOSE)(yajl_gen)>
class YAJL_Guard_T {
public:
    explicit YAJL_Guard_T(yajl_gen gen) : gen_(gen), opened_(OPEN(gen) == yajl_gen_status_ok) {}
    explicit YAJL_Guard_T(YAJL_Gen& gen)
        : gen_(gen.get()), opened_(gen.good() && gen.note(OPEN(gen.get()))) {}
    ~YAJL_Guard_T() {
        if (opened_)
            CLOSE(gen_);
    }
    YAJL_Guard_T(YAJL_Guard_T const&) = delete;
    YAJL_Guard_T& operator=(YAJL_Guard_T const&) = delete;

private:
    yajl_gen gen_;
    bool opened_;
};

using YAJL_Map_Guard = YAJL_Guard_T<yajl_gen_map_open, yajl_gen_map_close>;
using YAJL_Array_Guard = YAJL_Guard_T<yajl_gen_array_open, yajl_gen_array_close>;

#endif
