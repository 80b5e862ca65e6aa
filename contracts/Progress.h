#pragma once
#include "../framework/Export.h"
#include <atomic>
#include <memory>
#include <string>

namespace ZanSDK {
namespace Common {

// The caller's side of progress reporting. Every operation has a default that does nothing.
class SLICEIO_API IProgressDelegate
{
public:
    virtual ~IProgressDelegate() = default;
    // A task begins; indeterminate is true when no fraction will be reported.
    virtual void OnStart(const std::string& /*text*/, bool /*indeterminate*/) {}
    virtual void OnPulse() {}
    virtual void OnProgress(double /*fraction*/) {}
    virtual void OnFinish() {}
    // Polled by the work: true asks it to stop.
    virtual bool IsCancelled() const { return false; }
};

// Reports to a delegate for its lifetime. A null delegate is legal: nothing is shown and
// IsCancelled() stays false.
class SLICEIO_API BaseProgressReporter
{
public:
    explicit BaseProgressReporter(std::shared_ptr<IProgressDelegate> delegate) : _delegate(std::move(delegate)) {}
    virtual ~BaseProgressReporter() = default;
    BaseProgressReporter(const BaseProgressReporter&) = delete;
    BaseProgressReporter& operator=(const BaseProgressReporter&) = delete;
    // Sticky: once the delegate has asked to stop, the reporter stays cancelled.
    bool IsCancelled() const
    {
        if (!_cancelled && _delegate && _delegate->IsCancelled())
            _cancelled = true;
        return _cancelled;
    }

protected:
    std::shared_ptr<IProgressDelegate> _delegate;
    mutable bool _cancelled = false;
};

class SLICEIO_API IndeterminateProgressReporter : public BaseProgressReporter
{
public:
    IndeterminateProgressReporter(const std::shared_ptr<IProgressDelegate>& delegate, const std::string& text,
                                  bool /*showCancel*/ = true)
        : BaseProgressReporter(delegate)
    {
        if (_delegate)
            _delegate->OnStart(text, true);
    }
    ~IndeterminateProgressReporter() override
    {
        if (_delegate)
            _delegate->OnFinish();
    }
    void Pulse()
    {
        if (_delegate)
            _delegate->OnPulse();
    }
};

} // namespace Common
} // namespace ZanSDK
