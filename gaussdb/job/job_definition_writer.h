#ifndef GAUSSDB_JOB_JOB_DEFINITION_WRITER_H
#define GAUSSDB_JOB_JOB_DEFINITION_WRITER_H

#include "host/yajl/yajl_gen.h"
#include "qmrt/check.h"

#include <string>
#include <vector>

/** Writes the keys of one object of a job definition, in the order of the calls. */
class Job_Definition_Writer {
public:
    explicit Job_Definition_Writer(YAJL_Gen& gen) : gen_(gen) {}

    template <typename Value>
    void always(char const* key, Value const& value) {
        gen_ << key << value;
    }
    /** Only what is not 0, false or empty. */
    template <typename Value>
    void unless_default(char const* key, Value const& value) {
        if (value != Value())
            always(key, value);
    }
    void unless_default(char const* key, std::vector<std::string> const& values) {
        if (values.empty())
            return;
        gen_ << key;
        YAJL_Array_Guard const array(gen_);
        for (std::string const& value : values)
            gen_ << value;
    }

private:
    YAJL_Gen& gen_;
};

/**
 * Writes one object, whose keys @a write writes.
 * @return 0; -1 when the generator is null (logged) or refuses
 */
template <typename Write>
int write_job_definition(yajl_gen generator, Write write) {
    if (QMRT_IS_NULL(generator))
        return -1;
    YAJL_Gen gen(generator);
    {
        YAJL_Map_Guard const map(gen);
        Job_Definition_Writer writer(gen);
        write(writer);
    }
    return gen.good() ? 0 : -1;
}

#endif
