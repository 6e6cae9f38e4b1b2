#include "tests/contract/upstream_backend_contract.h"

namespace {

class Fake_Upstream_World : public Upstream_World {
public:
    Upstream_Backend& backend() override { return fake_; }
    void serve(int method, std::string const& path, Rest_Answer answer) override {
        fake_.serve(method, path, std::move(answer));
    }
    void serve_call(std::string const& method, RPC_Answer answer) override {
        fake_.serve_call(method, std::move(answer));
    }
    void serve_forward(std::string const& host_uuid, std::string const& method,
                       RPC_Answer answer) override {
        fake_.serve_forward(host_uuid, method, std::move(answer));
    }
    std::vector<std::pair<std::string, json_spirit::Value>> notifications(size_t) override {
        return fake_.notifications();
    }
    void cut_off() override { fake_.reachable(false); }

private:
    Fake_Upstream_Backend fake_;
};

INSTANTIATE_TEST_SUITE_P(fake, Upstream_Backend_Contract,
                         testing::Values([]() -> std::unique_ptr<Upstream_World> {
                             return std::make_unique<Fake_Upstream_World>();
                         }));

} // namespace
