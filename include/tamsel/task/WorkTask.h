#pragma once
// Typed work tasks: CreateWorkTask<void(Args...)>(executor, fn) returns a
// WorkTask that calls fn with the arguments of each submit, on the pool, in
// submission order. submitAndWait also waits for the call and rethrows what fn
// threw.

#include <tamsel/task/TaskContexts.h>
#include <tamsel/task/TaskExecutor.h>

#include <future>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace tamsel::task {

template <typename Sig>
class WorkTask;

template <typename... Args>
class WorkTask<void(Args...)> {
public:
    using Arguments = std::tuple<std::decay_t<Args>...>;

    WorkTask() = default;
    explicit WorkTask(std::shared_ptr<WtpWorkTaskContext> context) : m_context(std::move(context)) {}

    explicit operator bool() const { return m_context != nullptr; }
    const std::shared_ptr<WtpWorkTaskContext>& context() const { return m_context; }

    // Queues one call.
    void submit(Args... args) const
    {
        m_context->executor()->submitWork(m_context, OwnedPointer(),
                                          OwnedPointer(&DeleteArguments, new Arguments(std::move(args)...)));
    }

    // Queues one call and waits until it has run.
    void submitAndWait(Args... args) const
    {
        auto* promise = new std::promise<void>();
        auto done = promise->get_future();
        m_context->executor()->submitWork(m_context, OwnedPointer(&DeletePromise, promise),
                                          OwnedPointer(&DeleteArguments, new Arguments(std::move(args)...)));
        done.get();
    }

    void close() const { m_context->executor()->closeWorkTask(m_context); }

    static void DeleteArguments(void* p) { delete static_cast<Arguments*>(p); }
    static void DeletePromise(void* p) { delete static_cast<std::promise<void>*>(p); }

private:
    std::shared_ptr<WtpWorkTaskContext> m_context;
};

// A null WorkTask when the executor cannot make the task.
template <typename Sig, typename Fn>
WorkTask<Sig> CreateWorkTask(const std::shared_ptr<WorkTaskExecutor>& executor, Fn fn)
{
    using Task = WorkTask<Sig>;
    auto callback = [fn = std::move(fn)](void* completion, void* arguments) mutable {
        auto* promise = static_cast<std::promise<void>*>(completion);
        try {
            if (arguments != nullptr)
                std::apply(fn, *static_cast<typename Task::Arguments*>(arguments));
            else if constexpr (std::tuple_size_v<typename Task::Arguments> == 0)
                fn();
        } catch (...) {
            if (promise == nullptr)
                throw;
            promise->set_exception(std::current_exception());
            return;
        }
        if (promise != nullptr)
            promise->set_value();
    };
    return Task(executor->createWorkTask(std::move(callback)));
}

} // namespace tamsel::task
