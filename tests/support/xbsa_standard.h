#ifndef TESTS_SUPPORT_XBSA_STANDARD_H
#define TESTS_SUPPORT_XBSA_STANDARD_H

#include <cstddef>
#include <ctime>
#include <dlfcn.h>
#include <stdexcept>
#include <string>

/**
 * The Backup Services API as an application has it that was made from the published texts alone:
 * The Open Group's C425 and the reserved fields of the media type. It shares nothing with the
 * library's header, so a test that uses it compares the layouts, too.
 */
namespace xbsa_standard {

enum Code {
    SUCCESS = 0x00,
    ABORT_SYSTEM_ERROR = 0x03,
    AUTHENTICATION_FAILURE = 0x04,
    INVALID_CALL_SEQUENCE = 0x05,
    INVALID_HANDLE = 0x06,
    INVALID_VOTE = 0x0B,
    NO_MATCH = 0x11,
    NO_MORE_DATA = 0x12,
    OBJECT_NOT_FOUND = 0x1A,
    TRANSACTION_ABORTED = 0x20,
    INVALID_DATABLOCK = 0x34,
    VERSION_NOT_SUPPORTED = 0x4B,
    ACCESS_FAILURE = 0x4D,
    BUFFER_TOO_SMALL = 0x4E,
    INVALID_COPYID = 0x4F,
    INVALID_ENV = 0x50,
    INVALID_OBJECTDESCRIPTOR = 0x51,
    INVALID_QUERYDESCRIPTOR = 0x53,
    NULL_ARGUMENT = 0x55
};

enum Copy_Type { COPY_ANY = 1, COPY_ARCHIVE = 2, COPY_BACKUP = 3 };
enum Object_Type { TYPE_ANY = 1, TYPE_FILE = 2, TYPE_DIRECTORY = 3, TYPE_OTHER = 4 };
enum Object_Status { STATUS_ANY = 1, MOST_RECENT = 2, NOT_MOST_RECENT = 3 };
enum Vote { COMMIT = 1, ABORT = 2 };

struct Api_Version {
    unsigned short issue;
    unsigned short version;
    unsigned short level;
};

struct Owner {
    char bsa_object_owner[64];
    char app_object_owner[64];
};

struct Name {
    char object_space_name[1024];
    char path_name[1024];
};

struct Object_Descriptor {
    unsigned int rsv1;
    Owner object_owner;
    Name object_name;
    struct tm create_time;
    Copy_Type copy_type;
    unsigned long copy_id; ///< one 64-bit type, since the platform has one
    unsigned long restore_order;
    char rsv2[31];
    char rsv3[31];
    unsigned long estimated_size;
    char resource_type[31];
    Object_Type object_type;
    Object_Status object_status;
    char rsv4[31];
    char object_description[100];
    unsigned char object_info[256];
};

struct Query_Descriptor {
    Owner object_owner;
    Name object_name;
    struct tm create_time_from;
    struct tm create_time_to;
    struct tm rsv1;
    struct tm rsv2;
    Copy_Type copy_type;
    char rsv3[31];
    char rsv4[31];
    char rsv5[31];
    Object_Type object_type;
    Object_Status object_status;
    char rsv6[100];
};

struct Data_Block {
    unsigned int buffer_len;
    unsigned int num_bytes;
    unsigned int header_bytes;
    int share_id;
    unsigned int share_offset;
    void* buffer;
};

static_assert(sizeof(unsigned short) == 2 && sizeof(unsigned int) == 4 && sizeof(long) == 8);

/** The calls, looked up in a library as a database's tool does. Throws when one is not there. */
class Library {
public:
    explicit Library(char const* path) : library_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (!library_)
            throw std::runtime_error(dlerror());
        find("BSABeginTxn", begin_txn);
        find("BSACreateObject", create_object);
        find("BSADeleteObject", delete_object);
        find("BSAEndData", end_data);
        find("BSAEndTxn", end_txn);
        find("BSAGetData", get_data);
        find("BSAGetEnvironment", get_environment);
        find("BSAGetLastError", get_last_error);
        find("BSAGetNextQueryObject", get_next_query_object);
        find("BSAGetObject", get_object);
        find("BSAInit", init);
        find("BSAQueryApiVersion", query_api_version);
        find("BSAQueryObject", query_object);
        find("BSAQueryServiceProvider", query_service_provider);
        find("BSASendData", send_data);
        find("BSATerminate", terminate);
    }

    int (*begin_txn)(long);
    int (*create_object)(long, Object_Descriptor*, Data_Block*);
    int (*delete_object)(long, unsigned long);
    int (*end_data)(long);
    int (*end_txn)(long, Vote);
    int (*get_data)(long, Data_Block*);
    int (*get_environment)(long, Owner*, char**);
    int (*get_last_error)(unsigned int*, char*);
    int (*get_next_query_object)(long, Object_Descriptor*);
    int (*get_object)(long, Object_Descriptor*, Data_Block*);
    int (*init)(long*, void*, Owner*, char**);
    int (*query_api_version)(Api_Version*);
    int (*query_object)(long, Query_Descriptor*, Object_Descriptor*);
    int (*query_service_provider)(unsigned int*, char*, char*);
    int (*send_data)(long, Data_Block*);
    int (*terminate)(long);

private:
    template <typename Function>
    void find(char const* name, Function& function) {
        void* const symbol = dlsym(library_, name);
        if (!symbol)
            throw std::runtime_error(dlerror());
        function = reinterpret_cast<Function>(symbol);
    }
    void* const library_; ///< never closed: it stays loaded anyway
};

} // namespace xbsa_standard

#endif
