#include "xbsa/library/xbsa_session.h"

#include "host/storage/file_storage_backend.h"
#include "host/storage/storage_url.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <tuple>
#include <unistd.h>

namespace {

constexpr char POLICY_KEYWORD[] = "NBBSA_POLICY";
constexpr char VERSION_KEYWORD[] = "BSA_API_VERSION";
constexpr char DELIMITER_KEYWORD[] = "BSA_DELIMITER";
constexpr char VERSION[] = "1.1.0";

Xbsa_Result wrong_sequence(char const* why) {
    return {BSA_RC_INVALID_CALL_SEQUENCE, why};
}

/** The value of a keyword; "" when it is not there. */
std::string value_of(std::vector<std::string> const& environment, std::string const& keyword) {
    for (std::string const& text : environment)
        if (text.starts_with(keyword + "="))
            return text.substr(keyword.size() + 1);
    return "";
}

/** The keyword of a text "KEYWORD=value"; "" for any other text. */
std::string keyword_of(std::string const& text) {
    size_t const end = text.find('=');
    auto const is_blank = [](char c) { return c == ' ' || c == '\t'; };
    if (end == std::string::npos || end == 0 || is_blank(text[end - 1]) || is_blank(text[end + 1]))
        return "";
    return text.substr(0, end);
}

/** The 100 series is told its policy as a path in the tool's directory of media. */
std::string policy_name(std::string const& value) {
    std::string const media = std::string(Xbsa_Policy::DIRECTORY) + "/media/";
    return value.starts_with(media) ? value.substr(media.size()) : value;
}

Xbsa_Result check_environment(std::vector<std::string> const& environment) {
    for (std::string const& text : environment)
        if (keyword_of(text).empty())
            return {BSA_RC_INVALID_ENV,
                    "'" + qmrt::to_one_line(text) +
                        "' in the environment is not of the form KEYWORD=value"};
    std::string const version = value_of(environment, VERSION_KEYWORD);
    if (version.empty())
        return {BSA_RC_INVALID_ENV, "BSA_API_VERSION is not set in the environment"};
    if (version != VERSION)
        return {BSA_RC_VERSION_NOT_SUPPORTED, "version '" + qmrt::to_one_line(version) +
                                                  "' of the API is not supported (expected 1.1.0)"};
    std::string const delimiter = value_of(environment, DELIMITER_KEYWORD);
    if (delimiter.size() > 1 || (delimiter.size() == 1 && !std::isgraph(delimiter[0])))
        return {BSA_RC_INVALID_ENV, "BSA_DELIMITER is not one character"};
    return {};
}

int64_t microseconds_now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Xbsa_Result new_copy_id(uint64_t& id) {
    do {
        if (getentropy(&id, sizeof id) == -1)
            return {BSA_RC_ABORT_SYSTEM_ERROR, "the system gives no random numbers"};
    } while (id == 0);
    return {};
}

} // namespace

Xbsa_Session::Xbsa_Session(Xbsa_Policy policy, BSA_ObjectOwner const& owner,
                           std::vector<std::string> environment)
    : policy_(std::move(policy)),
      owner_(owner),
      environment_(std::move(environment)),
      agent_(policy_, clock_),
      counter_(policy_.counter_path()),
      limiters_(policy_.rate_limits, clock_),
      room_([this](Pool_Info& pool) { return agent_.find_pool(pool); }) {
    limiters_.room = [this](size_t bytes) { return room_.take(bytes); };
}

Xbsa_Result Xbsa_Session::open(BSA_ObjectOwner const& owner, std::vector<std::string> environment,
                               std::unique_ptr<Xbsa_Session>& session) {
    Xbsa_Result result = check_environment(environment);
    if (!result)
        return result;
    std::string const name = policy_name(value_of(environment, POLICY_KEYWORD));
    if (name.empty())
        return {BSA_RC_INVALID_ENV, "no policy is named: NBBSA_POLICY is not set"};
    Xbsa_Policy policy;
    result = Xbsa_Policy::read(name, policy);
    if (!result)
        return result;
    std::unique_ptr<Xbsa_Session> made(
        new Xbsa_Session(std::move(policy), owner, std::move(environment)));
    result = made->connect();
    if (result)
        session = std::move(made);
    return result;
}

Xbsa_Result Xbsa_Session::reopen(std::vector<std::string> changes,
                                 std::unique_ptr<Xbsa_Session>& session) const {
    if (transaction_)
        return wrong_sequence("the environment cannot change within a transaction");
    for (std::string const& text : environment_) {
        std::string const keyword = keyword_of(text);
        if (std::none_of(changes.begin(), changes.end(),
                         [&](std::string const& other) { return keyword_of(other) == keyword; }))
            changes.push_back(text);
    }
    return open(owner_, std::move(changes), session);
}

Xbsa_Result Xbsa_Session::connect() {
    Xbsa_Result const found = agent_.find_pool(pool_);
    if (!found)
        return found.code() == BSA_RC_OBJECT_NOT_FOUND
                   ? Xbsa_Result(BSA_RC_INVALID_ENV, found.text())
                   : found;
    room_.begin(pool_);
    auto const& devices = pool_.device_uuids;
    if (!policy_.device_uuid.empty() && !devices.empty() &&
        std::find(devices.begin(), devices.end(), policy_.device_uuid) == devices.end())
        return {BSA_RC_INVALID_ENV, "pool '" + qmrt::to_one_line(pool_.name) +
                                        "' is not on the device that the policy names"};
    return connect_pool(pool_);
}

Xbsa_Result Xbsa_Session::connect_pool(Pool_Info const& pool) {
    Storage_Url url;
    std::string fault;
    if (!parse_storage_url(pool.url, url, fault) || url.scheme != File_Storage_Backend::SCHEME)
        return {BSA_RC_ACCESS_FAILURE,
                "pool '" + qmrt::to_one_line(pool.name) + "' is no file system of this host"};
    Client_IO_Base::Options options;
    options.resumption_buffer_size = policy_.resumption_buffer_size;
    set_d2t_access_mode(options);
    return xbsa_retry(clock_, policy_.retry, [&](bool& transient) -> Xbsa_Result {
        std::shared_ptr<Storage_Connection> connection;
        Storage_Result const result =
            File_Storage_Backend().connect(pool.url, options.access(), connection);
        transient = result.code() == Storage_Result::UNREACHABLE;
        if (result)
            repository_ = std::make_unique<Xbsa_Repository>(connection, policy_.cluster_id);
        return result;
    });
}

Xbsa_Result Xbsa_Session::begin_transaction() {
    if (transaction_)
        return wrong_sequence("a transaction has begun already");
    transaction_ = std::make_unique<Xbsa_Transaction>(*repository_, agent_, counter_);
    return {};
}

Xbsa_Result Xbsa_Session::end_transaction(BSA_Vote vote) {
    if (!transaction_)
        return wrong_sequence("no transaction has begun");
    if (vote == BSA_Vote_COMMIT && (upload_ || download_))
        return wrong_sequence("BSAEndData() has not ended the object");
    download_.reset();
    upload_.reset();
    found_.clear();
    queried_ = false;
    std::unique_ptr<Xbsa_Transaction> const ending = std::move(transaction_);
    return vote == BSA_Vote_COMMIT ? ending->commit() : Xbsa_Result();
}

Xbsa_Result Xbsa_Session::may_begin(Xbsa_Transaction::Kind kind) {
    if (!transaction_)
        return wrong_sequence("no transaction has begun");
    if (upload_ || download_)
        return wrong_sequence("BSAEndData() has not ended the object");
    if (!transaction_->fits(kind))
        return wrong_sequence(kind == Xbsa_Transaction::MODIFIES
                                  ? "the transaction retrieves objects: it cannot modify any"
                                  : "the transaction modifies objects: it cannot retrieve any");
    return {};
}

Xbsa_Result Xbsa_Session::may_write() const {
    if (policy_.uuid.empty())
        return {BSA_RC_ACCESS_FAILURE, "the policy is of a restore: it names no backup set"};
    if (pool_.read_only)
        return {BSA_RC_ACCESS_FAILURE,
                "pool '" + qmrt::to_one_line(pool_.name) + "' is for restores only"};
    return {};
}

Xbsa_Packing Xbsa_Session::packing() const {
    Xbsa_Packing packing{policy_.compression, policy_.compression_level};
    if (packing.method == COMPR_AUTO)
        packing = {pool_.compression_method, pool_.compression_level};
    if (packing.method == COMPR_AUTO)
        packing.method = COMPR_NONE;
    return packing;
}

Xbsa_Result Xbsa_Session::create(BSA_ObjectDescriptor& descriptor) {
    Xbsa_Result result = may_begin(Xbsa_Transaction::MODIFIES);
    if (!result)
        return result;
    Xbsa_Object object;
    if (!object.read(descriptor, owner_))
        return {BSA_RC_INVALID_OBJECTDESCRIPTOR,
                "the object has no name, an unknown type, or a text without an end"};
    result = may_write();
    if (result && transaction_->objects() >= Xbsa_Repository::MAX_OBJECTS)
        result = {BSA_RC_ABORT_SYSTEM_ERROR, "the transaction has too many objects"};
    if (result)
        result = new_copy_id(object.copy_id);
    if (!result)
        return result;
    object.created = microseconds_now();
    object.compression = packing().method;
    object.set = policy_.uuid;
    object.name_file();
    auto upload = std::make_unique<Xbsa_Upload>(object, limiters_);
    result = upload->begin(repository_->connection(), repository_->data_name(object), packing());
    if (!result)
        return result;
    upload_ = std::move(upload);
    transaction_->become(Xbsa_Transaction::MODIFIES);
    object.write(descriptor, true);
    return {};
}

Xbsa_Result Xbsa_Session::send(void const* data, size_t size) {
    if (!upload_)
        return wrong_sequence("no object is being written");
    Xbsa_Result result = upload_->send(data, size);
    if (result) {
        counter_.add_current(size);
        return result;
    }
    upload_.reset();
    transaction_->fail();
    return result;
}

Xbsa_Result Xbsa_Session::end_data() {
    if (download_) {
        download_.reset();
        return {};
    }
    if (!upload_)
        return wrong_sequence("no object is being written or read");
    std::unique_ptr<Xbsa_Upload> upload = std::move(upload_);
    Xbsa_Result result = upload->finish();
    if (result)
        result = transaction_->add(std::move(upload));
    if (!result)
        transaction_->fail();
    return result;
}

Xbsa_Result Xbsa_Session::remove(uint64_t copy_id) {
    Xbsa_Result result = may_begin(Xbsa_Transaction::MODIFIES);
    Xbsa_Object object;
    if (result)
        result = find_copy(copy_id, object);
    if (result)
        result = may_write();
    if (result && object.set != policy_.uuid)
        result = {BSA_RC_ACCESS_FAILURE, "the object is in another backup set"};
    if (result) {
        transaction_->remove(std::move(object));
        transaction_->become(Xbsa_Transaction::MODIFIES);
    }
    return result;
}

Xbsa_Result Xbsa_Session::counts(std::string const& set, bool& does) {
    does = set == policy_.uuid || known_sets_.contains(set);
    if (does)
        return {};
    Xbsa_Result const asked = agent_.has_set(set, does);
    if (asked && does)
        known_sets_.insert(set);
    return asked;
}

Xbsa_Result Xbsa_Session::find(Xbsa_Hint const& hint, Xbsa_Repository::Filter const& filter,
                               std::vector<Xbsa_Object>& objects) {
    return repository_->find(
        hint, filter, [this](std::string const& set, bool& does) { return counts(set, does); },
        objects);
}

Xbsa_Result Xbsa_Session::find_copy(uint64_t copy_id, Xbsa_Object& object) {
    if (copy_id == 0)
        return {BSA_RC_INVALID_COPYID, "no object has the copy id 0"};
    std::vector<Xbsa_Object> objects;
    Xbsa_Result const result = find(
        {"", copy_id}, [&](Xbsa_Object const& one) { return one.copy_id == copy_id; }, objects);
    if (!result)
        return result;
    if (objects.empty())
        return {BSA_RC_OBJECT_NOT_FOUND, "there is no object with that copy id"};
    object = std::move(objects.front());
    return {};
}

std::vector<Xbsa_Session::Found> Xbsa_Session::answer(Xbsa_Query const& wanted,
                                                      std::vector<Xbsa_Object> objects) {
    std::sort(objects.begin(), objects.end(), [](auto const& left, auto const& right) {
        return std::tie(left.created, left.copy_id) > std::tie(right.created, right.copy_id);
    });
    std::set<std::tuple<std::string, std::string, std::string, std::string>> seen;
    std::vector<Found> result;
    for (Xbsa_Object& object : objects) {
        bool const newest =
            seen.emplace(object.bsa_owner, object.app_owner, object.space, object.path).second;
        if (wanted.wants(object, newest))
            result.push_back({std::move(object), newest});
    }
    return result;
}

Xbsa_Result Xbsa_Session::query(BSA_QueryDescriptor const& query,
                                BSA_ObjectDescriptor& descriptor) {
    if (!transaction_)
        return wrong_sequence("no transaction has begun");
    if (upload_ || download_)
        return wrong_sequence("BSAEndData() has not ended the object");
    Xbsa_Query wanted;
    if (!wanted.read(query, owner_))
        return {BSA_RC_INVALID_QUERYDESCRIPTOR, "the query has no pathName, an unknown type, an "
                                                "invalid time, or a text without an end"};
    std::vector<Xbsa_Object> objects;
    Xbsa_Result const result = find(
        {wanted.exact_path()}, [&](Xbsa_Object const& object) { return wanted.wants_name(object); },
        objects);
    if (!result)
        return result;
    found_ = answer(wanted, std::move(objects));
    next_ = 0;
    queried_ = true;
    return found_.empty() ? Xbsa_Result(BSA_RC_NO_MATCH, "no object is like that")
                          : next_object(descriptor);
}

Xbsa_Result Xbsa_Session::next_object(BSA_ObjectDescriptor& descriptor) {
    if (!queried_)
        return wrong_sequence("nothing has been asked for");
    if (next_ == found_.size())
        return {BSA_RC_NO_MORE_DATA, "there are no more objects"};
    found_[next_].object.write(descriptor, found_[next_].newest);
    ++next_;
    return {};
}

Xbsa_Result Xbsa_Session::get(uint64_t copy_id) {
    Xbsa_Result result = may_begin(Xbsa_Transaction::RETRIEVES);
    if (!result)
        return result;
    auto const known = std::find_if(found_.begin(), found_.end(), [&](Found const& found) {
        return found.object.copy_id == copy_id;
    });
    Xbsa_Object object;
    if (known != found_.end())
        object = known->object;
    else
        result = find_copy(copy_id, object);
    if (!result)
        return result;
    auto download = std::make_unique<Xbsa_Download>(object, limiters_);
    result = download->begin(repository_->connection(), repository_->data_name(object));
    if (result) {
        download_ = std::move(download);
        transaction_->become(Xbsa_Transaction::RETRIEVES);
    }
    return result;
}

Xbsa_Result Xbsa_Session::receive(void* buffer, size_t size, size_t& got) {
    got = 0;
    if (!download_)
        return wrong_sequence("no object is being read");
    bool const ended = download_->ended();
    Xbsa_Result result = download_->receive(buffer, size, got);
    if (!result)
        return result;
    counter_.add_current(got);
    if (!ended && download_->ended())
        counter_.add_object(download_->object().size, download_->object().stored_size);
    return got == 0 && download_->ended() ? Xbsa_Result(BSA_RC_NO_MORE_DATA, "the object has ended")
                                          : result;
}
