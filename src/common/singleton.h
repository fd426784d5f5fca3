#ifndef OVRA_KB_COMMON_SINGLETON_H
#define OVRA_KB_COMMON_SINGLETON_H

namespace OvraKb {

// The one instance of T, built on first use (thread-safe static initialisation) and
// destroyed at process exit. T makes its constructor private and befriends Singleton<T>.
template <typename T>
class Singleton {
  public:
    static T &Instance()
    {
        static T instance;
        return instance;
    }

    Singleton(const Singleton &) = delete;
    Singleton &operator=(const Singleton &) = delete;

  protected:
    Singleton() = default;
    ~Singleton() = default;
};

}  // namespace OvraKb

#endif  // OVRA_KB_COMMON_SINGLETON_H
