#ifndef TESTS_SUPPORT_XBSA_CLIENT_H
#define TESTS_SUPPORT_XBSA_CLIENT_H

#include "xbsa/library/xbsa.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

/** What a database's tool does with the API, in a few words. */
namespace xbsa {

inline std::string last_error() {
    char text[4096] = "";
    BSA_UInt32 size = sizeof text;
    BSAGetLastError(&size, text);
    return text;
}

/** Opens a session with a policy; @return its code */
inline int open(long& handle, std::string const& policy) {
    std::string keyword = "NBBSA_POLICY=" + policy;
    std::string version = "BSA_API_VERSION=1.1.0";
    char* environment[] = {version.data(), keyword.data(), nullptr};
    return BSAInit(&handle, nullptr, nullptr, environment);
}

inline BSA_ObjectDescriptor object(std::string const& path, std::string const& space = "db") {
    BSA_ObjectDescriptor descriptor;
    std::memset(&descriptor, 0, sizeof descriptor);
    std::strncpy(descriptor.objectName.objectSpaceName, space.c_str(), BSA_MAX_OSNAME - 1);
    std::strncpy(descriptor.objectName.pathName, path.c_str(), BSA_MAX_PATHNAME - 1);
    descriptor.copyType = BSA_CopyType_BACKUP;
    descriptor.objectType = BSA_ObjectType_FILE;
    return descriptor;
}

inline BSA_QueryDescriptor pattern(std::string const& path, std::string const& space = "*") {
    BSA_QueryDescriptor query;
    std::memset(&query, 0, sizeof query);
    std::strncpy(query.objectName.objectSpaceName, space.c_str(), BSA_MAX_OSNAME - 1);
    std::strncpy(query.objectName.pathName, path.c_str(), BSA_MAX_PATHNAME - 1);
    query.copyType = BSA_CopyType_ANY;
    query.objectType = BSA_ObjectType_ANY;
    query.objectStatus = BSA_ObjectStatus_ANY;
    return query;
}

inline BSA_DataBlock32 block(void* memory, size_t size, size_t bytes = 0) {
    BSA_DataBlock32 result{};
    result.bufferLen = static_cast<BSA_UInt32>(size);
    result.numBytes = static_cast<BSA_UInt32>(bytes);
    result.bufferPtr = memory;
    return result;
}

/** Sends a content in pieces; the code of the first call that fails. */
inline int send(long handle, std::string content, size_t piece = 256 * 1024) {
    for (size_t at = 0; at < content.size(); at += piece) {
        size_t const size = std::min(piece, content.size() - at);
        BSA_DataBlock32 data = block(content.data() + at, size, size);
        if (int const code = BSASendData(handle, &data))
            return code;
    }
    return BSA_RC_SUCCESS;
}

/** One object in the transaction that has begun. */
inline int put_object(long handle, BSA_ObjectDescriptor& descriptor, std::string const& content) {
    BSA_DataBlock32 data = block(nullptr, 0);
    int code = BSACreateObject(handle, &descriptor, &data);
    if (code == BSA_RC_SUCCESS)
        code = send(handle, content);
    return code == BSA_RC_SUCCESS ? BSAEndData(handle) : code;
}

/** One object in a transaction of its own. */
inline int put(long handle, std::string const& path, std::string const& content,
               BSA_UInt64* copy_id = nullptr) {
    BSA_ObjectDescriptor descriptor = object(path);
    int code = BSABeginTxn(handle);
    if (code == BSA_RC_SUCCESS)
        code = put_object(handle, descriptor, content);
    if (copy_id)
        *copy_id = descriptor.copyId;
    return code == BSA_RC_SUCCESS ? BSAEndTxn(handle, BSA_Vote_COMMIT) : code;
}

/** Reads a whole object in the transaction that has begun; the code that ended it. */
inline int get_object(long handle, BSA_UInt64 copy_id, std::string& content, size_t piece) {
    BSA_ObjectDescriptor descriptor = object("");
    descriptor.copyId = copy_id;
    std::string memory(piece, '\0');
    BSA_DataBlock32 data = block(nullptr, 0);
    content.clear();
    int code = BSAGetObject(handle, &descriptor, &data);
    data = block(memory.data(), memory.size());
    while (code == BSA_RC_SUCCESS) {
        code = BSAGetData(handle, &data);
        if (code == BSA_RC_SUCCESS && data.numBytes == 0)
            return BSA_RC_INVALID_DATABLOCK; // which would go on for ever
        content.append(memory, 0, data.numBytes);
    }
    if (code == BSA_RC_NO_MORE_DATA)
        BSAEndData(handle);
    return code;
}

/**
 * Reads a whole object in a transaction of its own, which stays open after a failure.
 * @return the code that ended it, BSA_RC_NO_MORE_DATA for its end
 */
inline int get(long handle, BSA_UInt64 copy_id, std::string& content, size_t piece = 100000) {
    int code = BSABeginTxn(handle);
    if (code == BSA_RC_SUCCESS)
        code = get_object(handle, copy_id, content, piece);
    if (code == BSA_RC_NO_MORE_DATA)
        BSAEndTxn(handle, BSA_Vote_COMMIT);
    return code;
}

/** The paths of all that a query finds, in its order, in the transaction that has begun. */
inline std::vector<std::string> find_objects(long handle, BSA_QueryDescriptor query,
                                             std::vector<BSA_ObjectDescriptor>* found = nullptr) {
    std::vector<std::string> paths;
    BSA_ObjectDescriptor descriptor;
    int code = BSAQueryObject(handle, &query, &descriptor);
    while (code == BSA_RC_SUCCESS && paths.size() < 100000) {
        paths.emplace_back(descriptor.objectName.pathName);
        if (found)
            found->push_back(descriptor);
        code = BSAGetNextQueryObject(handle, &descriptor);
    }
    if (code != BSA_RC_NO_MORE_DATA && code != BSA_RC_NO_MATCH)
        paths.push_back("error " + std::to_string(code) + ": " + last_error());
    return paths;
}

/** The same in a transaction of its own. */
inline std::vector<std::string> find(long handle, BSA_QueryDescriptor query,
                                     std::vector<BSA_ObjectDescriptor>* found = nullptr) {
    if (BSABeginTxn(handle) != BSA_RC_SUCCESS)
        return {"error: " + last_error()};
    std::vector<std::string> paths = find_objects(handle, query, found);
    BSAEndTxn(handle, BSA_Vote_COMMIT);
    return paths;
}

} // namespace xbsa

#endif
