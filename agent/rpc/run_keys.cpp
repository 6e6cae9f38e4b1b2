#include "agent/rpc/run_keys.h"

#include "json_spirit/access.h"

#include <algorithm>
#include <openssl/rand.h>

json_spirit::Object Run_Keys::Entry::dump() const {
    json_spirit::Object object = scope.dump();
    object["key"] = key_digest_text(digest);
    return object;
}

bool Run_Keys::Entry::read(json_spirit::Object const& object) {
    return scope.read(object) &&
           read_key_digest(json_spirit::object_get_str(object, "key"), digest);
}

secure_string Run_Keys::make() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        return {};
    secure_string text;
    for (unsigned char const byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

bool Run_Keys::add(Entry entry) {
    std::lock_guard const guard(mutex_);
    auto const of_host = std::ranges::count_if(
        keys_, [&](auto const& one) { return one.second->host_uuid == entry.scope.host_uuid; });
    if (static_cast<size_t>(of_host) >= MOST_OF_A_HOST)
        return false;
    keys_.try_emplace(entry.digest, std::make_shared<Run_Scope>(std::move(entry.scope)));
    return true;
}

void Run_Keys::end(std::string const& host_uuid, std::string const& run_id) {
    std::lock_guard const guard(mutex_);
    std::erase_if(keys_, [&](auto const& one) {
        return one.second->host_uuid == host_uuid && one.second->run_id == run_id;
    });
}

void Run_Keys::replace(std::string const& host_uuid, std::vector<Entry> entries) {
    std::lock_guard const guard(mutex_);
    lost_.erase(host_uuid);
    std::erase_if(keys_, [&](auto const& one) { return one.second->host_uuid == host_uuid; });
    for (Entry& entry : entries)
        keys_.try_emplace(entry.digest, std::make_shared<Run_Scope>(std::move(entry.scope)));
}

void Run_Keys::host_lost(std::string const& host_uuid, Clock::time_point now) {
    std::lock_guard const guard(mutex_);
    lost_[host_uuid] = now;
    std::erase_if(lost_, [&](auto const& one) {
        if (now - one.second < LOST_HOST)
            return false;
        std::erase_if(keys_, [&](auto const& key) { return key.second->host_uuid == one.first; });
        return true;
    });
}

std::shared_ptr<Run_Scope const> Run_Keys::find(Key_Digest const& digest,
                                                Clock::time_point now) const {
    std::lock_guard const guard(mutex_);
    auto const found = keys_.find(digest);
    if (found == keys_.end())
        return nullptr;
    return is_lost(found->second->host_uuid, now) ? nullptr : found->second;
}

std::shared_ptr<Run_Scope const> Run_Keys::find_run(std::string const& host_uuid,
                                                    std::string const& run_id,
                                                    Clock::time_point now) const {
    std::lock_guard const guard(mutex_);
    auto const found = std::ranges::find_if(keys_, [&](auto const& one) {
        return one.second->run_id == run_id && one.second->host_uuid == host_uuid;
    });
    return found == keys_.end() || is_lost(host_uuid, now) ? nullptr : found->second;
}

/** Under the lock. */
bool Run_Keys::is_lost(std::string const& host_uuid, Clock::time_point now) const {
    auto const lost = lost_.find(host_uuid);
    return lost != lost_.end() && now - lost->second >= LOST_HOST;
}

std::vector<Run_Keys::Entry> Run_Keys::of_host(std::string const& host_uuid) const {
    std::lock_guard const guard(mutex_);
    std::vector<Entry> result;
    for (auto const& [digest, scope] : keys_)
        if (scope->host_uuid == host_uuid)
            result.push_back({digest, *scope});
    return result;
}
