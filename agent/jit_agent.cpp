// The JVMTI agent: loaded with -agentpath:libjitagent.so=dir=DIR, it writes a load record (with
// its inline records) for every method the virtual machine compiles and one for every stub it
// generates, into DIR/HOST.PID.jit.
#include <jvmti.h>
#include <jvmticmlr.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#else
#include <ctime>
#endif

#include "record_builder.h"
#include "trace_file.h"

namespace jitagent {

namespace {

const char kOptionPrefix[] = "dir=";
const std::uint32_t kLoadType = sizeof(void*) == 8 ? tracewriter::kFunctionLoad64_v3 : tracewriter::kFunctionLoad32_v3;
const std::uint32_t kInlineType =
    sizeof(void*) == 8 ? tracewriter::kFunctionInlineLoad64 : tracewriter::kFunctionInlineLoad32;

/// The time stamp counter, the clock of the samples that the trace is matched with.
std::uint64_t timeStamp()
{
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
#endif
}

std::uint64_t keyOf(jmethodID method)
{
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(method));
}

/// Memory that JVMTI allocated, given back when the holder dies.
template <class T>
class JvmtiMemory {
public:
    explicit JvmtiMemory(jvmtiEnv* jvmti) : m_jvmti(jvmti) {}
    ~JvmtiMemory()
    {
        if (m_pointer)
            m_jvmti->Deallocate(reinterpret_cast<unsigned char*>(m_pointer));
    }
    JvmtiMemory(const JvmtiMemory&) = delete;
    JvmtiMemory& operator=(const JvmtiMemory&) = delete;
    T** out() { return &m_pointer; }
    T* get() const { return m_pointer; }

private:
    jvmtiEnv* m_jvmti;
    T* m_pointer = nullptr;
};

class JitAgent {
public:
    JitAgent()
        : m_builder([this](std::uint64_t key) { return cached(key); }, [this] { return nextId(); })
    {
    }

    bool start(jvmtiEnv* jvmti, const std::string& directory, std::string& error);
    void compiledMethodLoad(jvmtiEnv* jvmti, jmethodID method, jint size, const void* address, jint mapLength,
                            const jvmtiAddrLocationMap* map, const void* compileInfo);
    void dynamicCodeGenerated(const char* name, const void* address, jint length);
    void vmDeath() { m_file.close(); }

private:
    std::uint32_t nextId()
    {
        std::uint32_t id = ++m_lastId;
        while (id == 0) // after 2^32 records the ids wrap; 0 means "none" to the reader
            id = ++m_lastId;
        return id;
    }
    const JavaMethod* cached(std::uint64_t key);
    void remember(jvmtiEnv* jvmti, jmethodID method);

    TraceFile m_file;
    std::atomic<std::uint32_t> m_lastId{0};
    std::mutex m_methodsMutex;
    // Nodes of an unordered map stay where they are when it grows, so a pointer handed out
    // stays good while other threads add methods.
    std::unordered_map<std::uint64_t, JavaMethod> m_methods;
    RecordBuilder m_builder;
};

bool JitAgent::start(jvmtiEnv* jvmti, const std::string& directory, std::string& error)
{
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0')
        std::strcpy(host, "localhost");
    const std::string path = directory + "/" + TraceFile::fileName(host, static_cast<unsigned long>(getpid()));
    if (!m_file.open(path, error))
        return false;

    jvmtiCapabilities capabilities{};
    capabilities.can_generate_compiled_method_load_events = 1;
    capabilities.can_get_source_file_name = 1;
    capabilities.can_get_line_numbers = 1;
    if (jvmti->AddCapabilities(&capabilities) != JVMTI_ERROR_NONE) {
        error = "the virtual machine refuses the capabilities to report compiled methods";
        return false;
    }
    return true;
}

const JavaMethod* JitAgent::cached(std::uint64_t key)
{
    std::lock_guard<std::mutex> lock(m_methodsMutex);
    const auto found = m_methods.find(key);
    return found == m_methods.end() ? nullptr : &found->second;
}

void JitAgent::remember(jvmtiEnv* jvmti, jmethodID method)
{
    if (cached(keyOf(method)))
        return;
    // Asked outside the lock: two threads may both ask, and the first answer stays.
    JavaMethod info;
    JvmtiMemory<char> name(jvmti), signature(jvmti), classSignature(jvmti), source(jvmti);
    if (jvmti->GetMethodName(method, name.out(), signature.out(), nullptr) != JVMTI_ERROR_NONE)
        return;
    info.name = std::string(name.get() ? name.get() : "") + (signature.get() ? signature.get() : "");
    jclass owner = nullptr;
    if (jvmti->GetMethodDeclaringClass(method, &owner) == JVMTI_ERROR_NONE) {
        if (jvmti->GetClassSignature(owner, classSignature.out(), nullptr) == JVMTI_ERROR_NONE && classSignature.get())
            info.classSignature = classSignature.get();
        if (jvmti->GetSourceFileName(owner, source.out()) == JVMTI_ERROR_NONE && source.get())
            info.sourceFile = source.get();
    }
    jint count = 0;
    JvmtiMemory<jvmtiLineNumberEntry> table(jvmti);
    if (jvmti->GetLineNumberTable(method, &count, table.out()) == JVMTI_ERROR_NONE)
        for (jint i = 0; i < count; ++i)
            if (table.get()[i].start_location >= 0 && table.get()[i].line_number > 0)
                info.lines.emplace_back(static_cast<std::uint32_t>(table.get()[i].start_location),
                                        static_cast<std::uint32_t>(table.get()[i].line_number));
    jlocation first = 0, last = 0;
    if (jvmti->GetMethodLocation(method, &first, &last) == JVMTI_ERROR_NONE && last >= 0)
        info.bytecodeLength = static_cast<std::uint32_t>(last + 1);

    std::lock_guard<std::mutex> lock(m_methodsMutex);
    m_methods.emplace(keyOf(method), std::move(info));
}

void JitAgent::compiledMethodLoad(jvmtiEnv* jvmti, jmethodID method, jint size, const void* address,
                                  jint mapLength, const jvmtiAddrLocationMap* map, const void* compileInfo)
{
    const std::uint64_t loadTime = timeStamp();
    if (size <= 0 || !address)
        return;
    CompiledCode code;
    code.method = keyOf(method);
    code.address = reinterpret_cast<std::uintptr_t>(address);
    code.size = static_cast<std::uint32_t>(size);
    code.bytes = static_cast<const std::uint8_t*>(address);
    remember(jvmti, method);
    for (jint i = 0; map && i < mapLength; ++i)
        code.addressMap.push_back({reinterpret_cast<std::uintptr_t>(map[i].start_address),
                                   static_cast<std::uint32_t>(map[i].location < 0 ? 0 : map[i].location)});

    for (auto header = static_cast<const jvmtiCompiledMethodLoadRecordHeader*>(compileInfo); header;
         header = header->next) {
        if (header->kind != JVMTI_CMLR_INLINE_INFO)
            continue;
        const auto* inlines = reinterpret_cast<const jvmtiCompiledMethodLoadInlineRecord*>(header);
        for (jint i = 0; i < inlines->numpcs; ++i) {
            const PCStackInfo& info = inlines->pcinfo[i];
            PcStack pc;
            pc.pc = reinterpret_cast<std::uintptr_t>(info.pc);
            // The virtual machine lists the innermost frame first; the records want the
            // compiled method first.
            for (jint frame = info.numstackframes - 1; frame >= 0; --frame) {
                remember(jvmti, info.methods[frame]);
                pc.frames.push_back({keyOf(info.methods[frame]),
                                     static_cast<std::uint32_t>(info.bcis[frame] < 0 ? 0 : info.bcis[frame])});
            }
            code.pcs.push_back(std::move(pc));
        }
    }

    const MethodRecords records = m_builder.compiledMethod(code, loadTime);
    tracewriter::TraceWriter frames;
    frames.load(kLoadType, records.load);
    for (const tracewriter::InlineLoad& record : records.inlines)
        frames.inlineLoad(kInlineType, record);
    m_file.append(frames.bytes());
}

void JitAgent::dynamicCodeGenerated(const char* name, const void* address, jint length)
{
    const std::uint64_t loadTime = timeStamp();
    if (length <= 0 || !address)
        return;
    tracewriter::TraceWriter frames;
    frames.load(kLoadType, m_builder.stub(name ? name : "", reinterpret_cast<std::uintptr_t>(address),
                                          static_cast<std::uint32_t>(length),
                                          static_cast<const std::uint8_t*>(address), loadTime));
    m_file.append(frames.bytes());
}

JitAgent* agentOf(jvmtiEnv* jvmti)
{
    void* agent = nullptr;
    return jvmti->GetEnvironmentLocalStorage(&agent) == JVMTI_ERROR_NONE ? static_cast<JitAgent*>(agent) : nullptr;
}

// The callbacks run on the virtual machine's threads: nothing may escape them.
void JNICALL onCompiledMethodLoad(jvmtiEnv* jvmti, jmethodID method, jint size, const void* address,
                                  jint mapLength, const jvmtiAddrLocationMap* map, const void* compileInfo)
{
    try {
        if (JitAgent* agent = agentOf(jvmti))
            agent->compiledMethodLoad(jvmti, method, size, address, mapLength, map, compileInfo);
    } catch (...) {
    }
}

void JNICALL onDynamicCodeGenerated(jvmtiEnv* jvmti, const char* name, const void* address, jint length)
{
    try {
        if (JitAgent* agent = agentOf(jvmti))
            agent->dynamicCodeGenerated(name, address, length);
    } catch (...) {
    }
}

void JNICALL onVmDeath(jvmtiEnv* jvmti, JNIEnv*)
{
    if (JitAgent* agent = agentOf(jvmti))
        agent->vmDeath();
}

jint refuse(const std::string& message)
{
    std::fprintf(stderr, "jitagent: %s\n", message.c_str());
    return JNI_ERR;
}

} // namespace

} // namespace jitagent

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*)
{
    using namespace jitagent;
    const std::size_t prefix = sizeof kOptionPrefix - 1;
    if (!options || std::strncmp(options, kOptionPrefix, prefix) != 0 || options[prefix] == '\0')
        return refuse("expected the option dir=DIRECTORY");
    jvmtiEnv* jvmti = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&jvmti), JVMTI_VERSION_1_2) != JNI_OK || !jvmti)
        return refuse("the virtual machine offers no JVMTI 1.2 environment");

    try {
        // Lives as long as the process: a callback may still be running when the VM dies.
        JitAgent* agent = new JitAgent;
        std::string error;
        if (!agent->start(jvmti, options + prefix, error)) {
            delete agent;
            return refuse(error);
        }
        jvmtiEventCallbacks callbacks{};
        callbacks.CompiledMethodLoad = onCompiledMethodLoad;
        callbacks.DynamicCodeGenerated = onDynamicCodeGenerated;
        callbacks.VMDeath = onVmDeath;
        if (jvmti->SetEnvironmentLocalStorage(agent) != JVMTI_ERROR_NONE ||
            jvmti->SetEventCallbacks(&callbacks, sizeof callbacks) != JVMTI_ERROR_NONE)
            return refuse("the virtual machine refuses the agent's callbacks");
        for (jvmtiEvent event : {JVMTI_EVENT_COMPILED_METHOD_LOAD, JVMTI_EVENT_DYNAMIC_CODE_GENERATED, JVMTI_EVENT_VM_DEATH})
            if (jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr) != JVMTI_ERROR_NONE)
                return refuse("the virtual machine refuses to report compiled code");
    } catch (...) {
        return refuse("out of memory");
    }
    return JNI_OK;
}
