#ifndef XBSA_LIBRARY_XBSA_H
#define XBSA_LIBRARY_XBSA_H

#include <stdint.h>
#include <time.h>

/**
 * The Backup Services API, XBSA: The Open Group's document C425 of April 1998, for applications
 * that hand their data to a backup service, with the reserved fields, keywords and one function of
 * the media type "NBU". In C, as its callers are.
 *
 * Every function returns one of the codes below. Texts end with a NUL and fit into their arrays.
 * Times are UTC. Fields named "rsv" are reserved: zero in answers, ignored in arguments.
 *
 * The order of the calls:
 *
 *     BSAInit
 *       BSABeginTxn                        a transaction either modifies or retrieves
 *         BSACreateObject BSASendData* BSAEndData      modifies
 *         BSADeleteObject                              modifies
 *         BSAGetObject BSAGetData* BSAEndData          retrieves
 *         BSAQueryObject BSAGetNextQueryObject*        in either
 *       BSAEndTxn
 *     BSATerminate
 *
 * Any other order gives BSA_RC_INVALID_CALL_SEQUENCE and changes nothing. Between BSACreateObject()
 * or BSAGetObject() and BSAEndData() nothing else is allowed but an abort.
 *
 * Beyond the standard a process may have several sessions at once, each for one thread at a time;
 * concurrent calls on one session wait for each other. A session belongs to the process that opened
 * it: in a forked child its handle is not valid.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Lengths of texts with their closing NUL, and of other arrays. */
#define BSA_MAX_APPOBJECT_OWNER 64
#define BSA_MAX_BSAOBJECT_OWNER 64
#define BSA_MAX_OSNAME 1024   /**< of an object space */
#define BSA_MAX_PATHNAME 1024 /**< of an object in its space */
#define BSA_MAX_RESOURCETYPE 31
#define BSA_MAX_DESCRIPTION 100
#define BSA_MAX_OBJECTINFO 256
#define BSA_MAX_TOKEN_SIZE 64

/** How a call ended. */
#define BSA_RC_SUCCESS 0x00
#define BSA_RC_ABORT_SYSTEM_ERROR 0x03     /**< something failed; abort the transaction */
#define BSA_RC_AUTHENTICATION_FAILURE 0x04 /**< the service does not accept who asks */
#define BSA_RC_INVALID_CALL_SEQUENCE 0x05  /**< not in this state of the session */
#define BSA_RC_INVALID_HANDLE 0x06         /**< no session, or one that has ended */
#define BSA_RC_INVALID_VOTE 0x0B           /**< neither commit nor abort */
#define BSA_RC_NO_MATCH 0x11               /**< a query finds nothing */
#define BSA_RC_NO_MORE_DATA 0x12           /**< the end of an object, or of a query's answers */
#define BSA_RC_OBJECT_NOT_FOUND 0x1A       /**< there is no such object, or no longer */
#define BSA_RC_TRANSACTION_ABORTED 0x20    /**< a commit failed: nothing was committed */
#define BSA_RC_INVALID_DATABLOCK 0x34      /**< a block without memory, or larger than it */
#define BSA_RC_VERSION_NOT_SUPPORTED 0x4B  /**< the caller wants another version of the API */
#define BSA_RC_ACCESS_FAILURE 0x4D         /**< not allowed to do this with that */
#define BSA_RC_BUFFER_TOO_SMALL 0x4E       /**< of a text; the size says how much it takes */
#define BSA_RC_INVALID_COPYID 0x4F         /**< 0, which no object has */
#define BSA_RC_INVALID_ENV 0x50            /**< an entry of the environment is invalid or missing */
#define BSA_RC_INVALID_OBJECTDESCRIPTOR 0x51
#define BSA_RC_INVALID_QUERYDESCRIPTOR 0x53
#define BSA_RC_NULL_ARGUMENT 0x55 /**< a pointer that may not be null is */

typedef int16_t BSA_Int16;
typedef int32_t BSA_Int32;
typedef int64_t BSA_Int64;
typedef uint16_t BSA_UInt16;
typedef uint32_t BSA_UInt32;
typedef uint64_t BSA_UInt64;
/** Names a block of shared memory. This service has none, and does not look at it. */
typedef int BSA_ShareId;
/** Names a session. */
typedef long BSA_Handle;

/** Who asks. Not looked at: the policy's access key says it. May be null. */
typedef char BSA_SecurityToken[BSA_MAX_TOKEN_SIZE];

typedef enum {
    BSA_CopyType_ANY = 1, /**< in queries only */
    BSA_CopyType_ARCHIVE = 2,
    BSA_CopyType_BACKUP = 3
} BSA_CopyType;

typedef enum {
    BSA_ObjectType_ANY = 1, /**< in queries only */
    BSA_ObjectType_FILE = 2,
    BSA_ObjectType_DIRECTORY = 3,
    BSA_ObjectType_OTHER = 4
} BSA_ObjectType;

/** Whether an object is the newest copy of what has its name. */
typedef enum {
    BSA_ObjectStatus_ANY = 1,
    BSA_ObjectStatus_MOST_RECENT = 2,
    BSA_ObjectStatus_NOT_MOST_RECENT = 3
} BSA_ObjectStatus;

typedef enum { BSA_Vote_COMMIT = 1, BSA_Vote_ABORT = 2 } BSA_Vote;

/** A version of the API: this service has 1.1.0. */
typedef struct {
    BSA_UInt16 issue;
    BSA_UInt16 version;
    BSA_UInt16 level;
} BSA_ApiVersion;

typedef struct {
    char bsa_ObjectOwner[BSA_MAX_BSAOBJECT_OWNER]; /**< to the service: stored, grants nothing */
    char app_ObjectOwner[BSA_MAX_APPOBJECT_OWNER]; /**< to the application */
} BSA_ObjectOwner;

typedef struct {
    char objectSpaceName[BSA_MAX_OSNAME]; /**< such as a file system */
    char pathName[BSA_MAX_PATHNAME];      /**< within it */
} BSA_ObjectName;

/** What an object is. Of what it is created with, copyId and createTime are the service's to say.
 */
typedef struct {
    BSA_UInt32 rsv1;
    BSA_ObjectOwner objectOwner;
    BSA_ObjectName objectName;
    struct tm createTime;
    BSA_CopyType copyType;
    BSA_UInt64 copyId; /**< names this copy alone, in all sets */
    BSA_UInt64 restoreOrder;
    char rsv2[31];
    char rsv3[31];
    BSA_UInt64 estimatedSize; /**< bytes; the application's own estimate, also in an answer */
    char resourceType[BSA_MAX_RESOURCETYPE];
    BSA_ObjectType objectType;
    BSA_ObjectStatus objectStatus;
    char rsv4[31];
    char objectDescription[BSA_MAX_DESCRIPTION];
    unsigned char objectInfo[BSA_MAX_OBJECTINFO]; /**< the application's own bytes */
} BSA_ObjectDescriptor;

/**
 * What to look for. Owners and names are patterns in which "*" stands for any characters, "?" for
 * one, and a backslash takes the next one literally. "" matches only an empty text, except that an
 * owner of two empty texts is the session's. pathName is mandatory. A time of all zeros is no
 * bound.
 */
typedef struct {
    BSA_ObjectOwner objectOwner;
    BSA_ObjectName objectName;
    struct tm createTime_from; /**< not created before it */
    struct tm createTime_to;   /**< not created after it */
    struct tm rsv1;
    struct tm rsv2;
    BSA_CopyType copyType;
    char rsv3[31];
    char rsv4[31];
    char rsv5[31];
    BSA_ObjectType objectType;
    BSA_ObjectStatus objectStatus;
    char rsv6[100];
} BSA_QueryDescriptor;

/** Memory of the caller's. The data stand behind the header, from bufferPtr + headerBytes on. */
typedef struct {
    BSA_UInt32 bufferLen;   /**< of the memory */
    BSA_UInt32 numBytes;    /**< of the data in it */
    BSA_UInt32 headerBytes; /**< to leave alone in front of them; this service wants none */
    BSA_ShareId shareId;
    BSA_UInt32 shareOffset;
    void* bufferPtr;
} BSA_DataBlock32;

/**
 * Opens a session.
 * @param bsaHandle    gets its handle
 * @param token        not looked at
 * @param objectOwner  the owner of objects that are created without one; may be null
 * @param environment  texts "KEYWORD=value", no blanks around "=", up to a null pointer:
 *                     BSA_API_VERSION  mandatory, "1.1.0"; another is BSA_RC_VERSION_NOT_SUPPORTED
 *                     NBBSA_POLICY     mandatory, the policy: its name, or a path in the media
 * directory BSA_DELIMITER    one character of ASCII; the default is "/" Other keywords are kept and
 * not used. Nothing of it is taken from the process's own environment.
 */
int BSAInit(long* bsaHandle, BSA_SecurityToken* token, BSA_ObjectOwner* objectOwner,
            char** environment);
/** Ends a session. A transaction that has not ended is aborted. */
int BSATerminate(long bsaHandle);

/** Begins a transaction: its creations and deletions happen when it ends, or not at all. */
int BSABeginTxn(long bsaHandle);
/**
 * Ends the transaction. A commit that fails is an abort, BSA_RC_TRANSACTION_ABORTED; if only the
 * removal of an object fails, the code is that of the removal, and the rest is committed. An abort
 * succeeds.
 * @param vote  BSA_Vote_COMMIT when all of it is to happen
 */
int BSAEndTxn(long bsaHandle, BSA_Vote vote);

/**
 * Begins an object.
 * @param objectDescriptor  copyId and createTime are filled in; an empty owner is the session's
 * @param dataBlock         gets the service's preferences: bufferLen, numBytes and headerBytes are
 * 0, which is a block of any length without header and trailer. May be null.
 */
int BSACreateObject(long bsaHandle, BSA_ObjectDescriptor* objectDescriptor,
                    BSA_DataBlock32* dataBlock);
/** Appends a block to the object that was begun. */
int BSASendData(long bsaHandle, BSA_DataBlock32* dataBlock);
/** Ends the object that is written, or stops reading. */
int BSAEndData(long bsaHandle);
/** Removes an object when the transaction is committed; until then queries still find it. */
int BSADeleteObject(long bsaHandle, BSA_UInt64 copyId);

/**
 * Finds objects, the newest first, and gives the first of them. The next query and the end of the
 * transaction discard the rest.
 */
int BSAQueryObject(long bsaHandle, BSA_QueryDescriptor* queryDescriptor,
                   BSA_ObjectDescriptor* objectDescriptor);
/** Gives the next object; BSA_RC_NO_MORE_DATA behind the last. */
int BSAGetNextQueryObject(long bsaHandle, BSA_ObjectDescriptor* objectDescriptor);

/**
 * Begins to read an object.
 * @param objectDescriptor  its copyId says which; nothing else is read or changed
 * @param dataBlock         as in BSACreateObject()
 */
int BSAGetObject(long bsaHandle, BSA_ObjectDescriptor* objectDescriptor,
                 BSA_DataBlock32* dataBlock);
/**
 * Reads on. BSA_RC_NO_MORE_DATA, with numBytes 0, is the end of an object that is whole: its last
 * bytes come only after all of it has been verified. Any other code than these two is a failure,
 * and what came before is not to be used.
 */
int BSAGetData(long bsaHandle, BSA_DataBlock32* dataBlock);

/**
 * Says why the last call of the calling thread failed.
 * @param size   of the memory; gets the length of the text with its NUL, 0 when the call did not
 * fail
 * @param error  gets the text
 */
int BSAGetLastError(BSA_UInt32* size, char* error);
/**
 * Gives what the session was opened with.
 * @param objectOwner  gets the owner; may be null
 * @param environment  gets the texts and a null pointer, as many as BSAInit() was given and
 *                     NBBSAUpdateEnv() added; they are the session's, until it ends or
 *                     NBBSAUpdateEnv() is called. May be null.
 */
int BSAGetEnvironment(long bsaHandle, BSA_ObjectOwner* objectOwner, char** environment);
/** Gives the version of the API. Before BSAInit() as well. */
int BSAQueryApiVersion(BSA_ApiVersion* apiVersion);
/**
 * Gives the service's name, three fields: maker, product and version. Before BSAInit() as well.
 * @param size       of the memory; gets the length of the text with its NUL
 * @param delimiter  gets the character between the fields; may be null
 */
int BSAQueryServiceProvider(BSA_UInt32* size, char* delimiter, char* provider);

/**
 * Changes a session's environment; outside of a transaction. An extension of the media type.
 * @param bsaHandle    the session's handle
 * @param environment  as of BSAInit(); what it does not name stays. A new NBBSA_POLICY is used from
 *                     then on. BSA_API_VERSION cannot change. On a failure nothing changes.
 */
int NBBSAUpdateEnv(BSA_Handle* bsaHandle, char** environment);

#ifdef __cplusplus
}
#endif

#endif
