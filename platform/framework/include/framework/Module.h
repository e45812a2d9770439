#pragma once

#include <Poco/Util/Subsystem.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "framework/Policy.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"

namespace Framework {

/// A loadable unit of the agent: owns its tasks and its policy hooks.
///
/// A module library exports `extern "C" Framework::Module* CreateModule()`. The agent calls
/// Init once on its control thread, RefreshPolicy for every policy document (any number of
/// times, from its policy thread), UnInit once at shutdown, then release().
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);

    const char* name() const override { return name_.c_str(); }
    void initialize(Poco::Util::Application&) override {}
    void uninitialize() override {}

    virtual int Init();
    virtual void UnInit();
    /// Hands a policy document of `key` to the hook registered under it, with `current` set to
    /// the policy this module holds for the key (null if none); on return `current` is the new
    /// policy. The new policy
    /// is given to every task that its TaskPolicy children name (tasks of this module). The
    /// module keeps the newest policy of each key alive. Returns 0, or -1 when no hook is
    /// registered under the key or the hook returned null. Deliveries are taken one at a time;
    /// the hook runs without the module's lock, so it may call FindTask, GetCurrentPolicy or
    /// RegisterTask, but not RefreshPolicy of the same module.
    virtual int RefreshPolicy(const std::string& key, const std::string& feature,
                              const std::string& document, Policy*& current);

    /// Takes ownership of `task`, makes its name reachable, calls its Init and starts its thread.
    /// `detached` true: the module does not join the thread at UnRegisterTask (not used here).
    int RegisterTask(Task* task, bool detached);
    /// Cancels the named task, joins its thread, handles the messages still queued for it (on
    /// the calling thread), calls its UnInit, withdraws its name and releases it. -1 when the
    /// module has no such task.
    int UnRegisterTask(const std::string& taskName);
    /// Stores `callback` under `key`, taking ownership (replacing and freeing an earlier one).
    int RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback);
    /// Drops the callback of `key` (and the policy kept for it).
    int UnRegisterTaskletCallback(const std::string& key);

    /// The task of this module with that name, or null.
    Task* FindTask(const std::string& taskName);
    /// The newest policy delivered under `key`, or null.
    Policy* GetCurrentPolicy(const std::string& key);

protected:
    ~Module() override;

private:
    struct RunningTask {
        Task* task = nullptr;
        std::thread thread;
        bool detached = false;
    };
    void StopTask(RunningTask& running);
    void DispatchToTasks(const std::shared_ptr<Policy>& fresh);

    std::string name_;
    std::mutex refreshMutex_;  // held through one policy delivery, hook included
    std::mutex mutex_;         // guards tasks_, callbacks_ and policies_
    std::map<std::string, RunningTask> tasks_;
    // Shared so that a hook being run survives its key being withdrawn meanwhile.
    std::map<std::string, std::shared_ptr<AbstractPolicyCallback>> callbacks_;
    std::map<std::string, std::shared_ptr<Policy>> policies_;
};

}  // namespace Framework

/// The signature every module library exports as `CreateModule`.
extern "C" {
typedef Framework::Module* (*CreateModuleFunc)();
}
