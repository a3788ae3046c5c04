// The C++ side of the Python module: a resolver over result directories that takes sample
// points as columns and gives columns back, with the loop outside the interpreter's lock.
#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "platform/text.h"
#include "read_failures.h"
#include "resolution.h"
#include "result_directories.h"
#include "samples.h"
#include "symbol_directories.h"
#include "symbols.h"

namespace py = pybind11;
using namespace velmark_3_11;
using namespace jitreader_tool;

namespace {

/// What tells outcomes apart: each frame's method and line.
typedef std::pair<const ISymbol*, unsigned int> FrameKey;

/// Outcome indexes by their frames. A resolve looks up every sample, and the keys of a large
/// run outgrow the caches: slots hold the hash and where the key's frames lie in one array, so
/// that a lookup touches a slot and, for a match, those frames; a map of vectors touched a
/// bucket, a node and the vector's own storage.
class OutcomeTable {
public:
    /// The outcome of the frames, or -1 when they have none yet.
    std::int32_t find(const std::vector<FrameKey>& frames) const
    {
        if (m_slots.empty())
            return -1;
        const std::uint64_t hash = hashOf(frames);
        for (std::size_t i = hash & mask();; i = (i + 1) & mask()) {
            const Slot& slot = m_slots[i];
            if (slot.outcome < 0)
                return -1;
            if (slot.hash == hash && slot.count == frames.size() &&
                std::equal(frames.begin(), frames.end(), m_frames.begin() + slot.first))
                return slot.outcome;
        }
    }

    /// Files frames that find() doesn't know.
    void insert(const std::vector<FrameKey>& frames, std::int32_t outcome)
    {
        if (2 * (m_used + 1) > m_slots.size())
            grow();
        Slot slot{hashOf(frames), static_cast<std::uint32_t>(m_frames.size()),
                  static_cast<std::uint32_t>(frames.size()), outcome};
        m_frames.insert(m_frames.end(), frames.begin(), frames.end());
        place(slot);
        ++m_used;
    }

    void clear()
    {
        m_slots.clear();
        m_frames.clear();
        m_used = 0;
    }

private:
    struct Slot {
        std::uint64_t hash;
        std::uint32_t first; // in m_frames
        std::uint32_t count;
        std::int32_t outcome; // -1: empty
    };

    static std::uint64_t hashOf(const std::vector<FrameKey>& frames)
    {
        std::uint64_t hash = frames.size();
        for (const FrameKey& frame : frames) {
            hash ^= reinterpret_cast<std::uintptr_t>(frame.first) + (std::uint64_t(frame.second) << 48);
            // splitmix64's finaliser: every bit of the pointer and line reaches the low bits
            hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9ULL;
            hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebULL;
            hash ^= hash >> 31;
        }
        return hash;
    }

    std::size_t mask() const { return m_slots.size() - 1; }

    void place(const Slot& slot)
    {
        std::size_t i = slot.hash & mask();
        while (m_slots[i].outcome >= 0)
            i = (i + 1) & mask();
        m_slots[i] = slot;
    }

    void grow()
    {
        std::vector<Slot> old(std::max<std::size_t>(64, 2 * m_slots.size()), Slot{0, 0, 0, -1});
        old.swap(m_slots);
        for (const Slot& slot : old) {
            if (slot.outcome >= 0)
                place(slot);
        }
    }

    std::vector<Slot> m_slots; // a power of two of them, at most half in use
    std::vector<FrameKey> m_frames;
    std::size_t m_used = 0;
};

[[noreturn]] void raise(PyObject* type, const std::string& message)
{
    PyErr_SetString(type, message.c_str());
    throw py::error_already_set();
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            result.push_back(line);
    return result;
}

/// Checks the directories as the tool does, as Python exceptions.
void checkDirectories(const std::vector<std::string>& directories, const char* what)
{
    if (directories.empty())
        raise(PyExc_ValueError, std::string("no ") + what + " directory given");
    for (const std::string& directory : directories) {
        boost::system::error_code error;
        if (!boost::filesystem::is_directory(directory, error))
            raise(PyExc_FileNotFoundError, std::string("not a ") + what + " directory: " + directory);
    }
}

/// Hands progress to a Python callable, which runs under the interpreter's lock.
void reportProgress(unsigned long long done, unsigned long long total, void* context)
{
    py::gil_scoped_acquire gil;
    try {
        (*static_cast<py::object*>(context))(done, total);
    } catch (py::error_already_set& error) {
        // A failing display must not stop the read.
        error.discard_as_unraisable("jitreader progress callback");
    }
}

/// A sample point's place in the walk over all of them.
struct SampleOrder {
    std::uint64_t process; ///< host id above, process id below
    std::uint64_t address;
    std::uint64_t time;
    std::size_t index; ///< in the columns

    unsigned int hostId() const { return static_cast<unsigned int>(process >> 32); }
    std::uint32_t processId() const { return static_cast<std::uint32_t>(process); }
};

/// What a sample point resolved to.
struct Answer {
    std::uint64_t jitRva; ///< 0 unless resolved
    std::int32_t outcome; ///< -1: none
    PointStatus status;
};

/// The points by host, process and address. Profiles come in time order, which jumps
/// between all the code of all the processes for each point; in this order neighbouring points
/// share their method, region and line table, which then stay in the caches.
std::vector<SampleOrder> localityOrder(const std::uint64_t* times, const std::uint64_t* addresses,
                                       const std::uint32_t* processIds, const std::int64_t* hostCodes,
                                       const std::vector<unsigned int>& hostIds, std::size_t count)
{
    std::vector<SampleOrder> order(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::int64_t code = hostCodes[i];
        const unsigned int hostId = code >= 0 && static_cast<std::size_t>(code) < hostIds.size() ? hostIds[code] : 0;
        order[i] = SampleOrder{std::uint64_t(hostId) << 32 | processIds[i], addresses[i], times[i], i};
    }
    const auto before = [](const SampleOrder& a, const SampleOrder& b) {
        return a.process != b.process ? a.process < b.process : a.address < b.address;
    };
    // The sort takes a sixth of a resolve: a large one sorts its halves at once, then merges them.
    constexpr std::size_t kHalvedFrom = 1 << 16;
    if (count < kHalvedFrom || std::thread::hardware_concurrency() < 2) {
        std::sort(order.begin(), order.end(), before);
        return order;
    }
    const auto middle = order.begin() + static_cast<std::ptrdiff_t>(count / 2);
    const auto sortFirstHalf = [&] { std::sort(order.begin(), middle, before); };
    std::thread helper;
    try {
        helper = std::thread(sortFirstHalf);
    } catch (const std::system_error&) {
        sortFirstHalf(); // no thread to spare
    }
    std::sort(middle, order.end(), before);
    if (helper.joinable())
        helper.join();
    std::inplace_merge(order.begin(), middle, order.end(), before);
    return order;
}

class ResolverBinding {
public:
    ResolverBinding(const std::vector<std::string>& directories, const std::vector<std::string>& symbols, bool lazy,
                    py::object progress)
        : m_directories(directories), m_symbols(symbols)
    {
        checkDirectories(directories, "result");
        if (!symbols.empty())
            checkDirectories(symbols, "symbol");
        std::ostringstream problems;
        if (!checkResultDirectories(directories, problems))
            raise(PyExc_ValueError, problems.str().substr(0, problems.str().find_last_not_of('\n') + 1));
        LoadProgress loadProgress;
        if (!progress.is_none()) {
            loadProgress.callback = &reportProgress;
            loadProgress.context = &progress;
        }
        bool opened = false;
        {
            py::gil_scoped_release release;
            const ReadFailures failures(m_log);
            opened = m_points.open(directories, lazy, symbols, loadProgress);
        }
        if (!opened)
            raise(PyExc_ValueError, "the result directories could not be read");
    }

    std::vector<std::pair<std::string, unsigned int>> processes() const
    {
        std::vector<std::pair<std::string, unsigned int>> result;
        for (const auto& host : m_points.registry().hosts()) {
            const std::string name = toUtf8(m_points.registry().getHostName(host.first));
            for (const auto& process : host.second)
                result.emplace_back(name, process.first);
        }
        return result;
    }

    py::dict methods()
    {
        boost::intrusive_ptr<ISymbolResolver> resolver = m_points.resolver();
        if (!resolver && !m_listing) {
            // A lazy resolver has read no method; the list needs them all, read once.
            py::gil_scoped_release release;
            const ReadFailures failures(m_log);
            auto iterator = directoryIterator(m_directories);
            boost::intrusive_ptr<ISymbolFileLocator> locator = symbolLocator(m_symbols);
            m_listing = ISymbolResolver::create(iterator, locator);
        }
        if (!resolver)
            resolver = m_listing;
        if (!resolver)
            raise(PyExc_ValueError, "the result directories could not be read");
        std::vector<unsigned int> rawIds;
        std::vector<std::string> names, classes, modules, sources;
        std::vector<unsigned long long> starts, loadTimes, sizes;
        const bool enrich = !m_symbols.empty();
        for (auto methods = resolver->getMethods(); !methods.at_end(); methods.next()) {
            boost::intrusive_ptr<ISymbol> symbol = methods.current();
            // Resolving a method fills in what its assembly knows of it.
            if (enrich && symbol->getMetadataToken() != 0)
                if (const boost::intrusive_ptr<ISymbol> resolved = resolver->resolveSymbol(symbol->getStartJitRva()))
                    symbol = resolved;
            unsigned long long size = 0;
            for (auto regions = symbol->getCodeRegions(); !regions.at_end(); regions.next())
                size += regions.current()->length();
            rawIds.push_back(symbol->getRawMethodId());
            names.push_back(toUtf8(symbol->getName()));
            classes.push_back(toUtf8(symbol->getClassName()));
            modules.push_back(moduleName(*symbol));
            sources.push_back(sourceFileName(*symbol));
            starts.push_back(symbol->getStartJitRva());
            loadTimes.push_back(symbol->getLoadTime());
            sizes.push_back(size);
        }
        py::dict columns;
        columns["raw_id"] = py::array_t<std::uint32_t>(rawIds.size(), rawIds.data());
        columns["name"] = names;
        columns["class"] = classes;
        columns["module"] = modules;
        columns["start_jit_rva"] = py::array_t<std::uint64_t>(starts.size(), reinterpret_cast<std::uint64_t*>(starts.data()));
        columns["load_time"] = py::array_t<std::uint64_t>(loadTimes.size(), reinterpret_cast<std::uint64_t*>(loadTimes.data()));
        columns["code_size"] = py::array_t<std::uint64_t>(sizes.size(), reinterpret_cast<std::uint64_t*>(sizes.data()));
        columns["source"] = sources;
        return columns;
    }

    /// Resolves columns of sample points. `hosts` holds a code per point into `hostNames`
    /// (negative: no host). Returns jit rvas, status codes, an outcome index per point (-1:
    /// none) and the distinct outcomes as the columns method, class, module, source, line and
    /// inlined, each one longer than the outcomes: its last entry answers the index -1.
    py::tuple resolve(py::array_t<std::uint64_t, py::array::c_style> time,
                      py::array_t<std::uint64_t, py::array::c_style> address,
                      py::array_t<std::uint32_t, py::array::c_style> pid,
                      py::array_t<std::int64_t, py::array::c_style> hosts, const std::vector<std::string>& hostNames,
                      bool fullNames)
    {
        const py::ssize_t count = time.size();
        if (address.size() != count || pid.size() != count || hosts.size() != count)
            raise(PyExc_ValueError, "the sample columns differ in length");
        py::array_t<std::uint64_t> jitRvas(count);
        py::array_t<std::uint8_t> statuses(count);
        py::array_t<std::int32_t> outcomeIndex(count);
        const std::uint64_t* times = time.data();
        const std::uint64_t* addresses = address.data();
        const std::uint32_t* pids = pid.data();
        const std::int64_t* hostCodes = hosts.data();
        std::uint64_t* rvaOut = jitRvas.mutable_data();
        std::uint8_t* statusOut = statuses.mutable_data();
        std::int32_t* outcomeOut = outcomeIndex.mutable_data();
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(m_mutex);
            const ReadFailures failures(m_log);
            std::vector<unsigned int> hostIds;
            for (const std::string& name : hostNames)
                hostIds.push_back(m_points.hostId(name));
            if (m_fullNames != fullNames) {
                m_outcomes.clear();
                m_outcomeOf.clear();
                m_lastOutcome = -1;
                m_moduleOutcome.clear();
                ++m_generation;
                m_fullNames = fullNames;
            }
            std::string reason;
            std::vector<FrameRef> refs;
            const std::vector<SampleOrder> order = localityOrder(times, addresses, pids, hostCodes, hostIds, count);
            // Answers go into the arrays only after the walk: scattered there at once, their
            // cache misses would hold up every atomic operation of the lookups behind them.
            std::vector<Answer> answers(order.size());
            // A point at its predecessor's jit rva, as the address order often gives, has its
            // predecessor's frames. No point resolves to jit rva 0.
            Answer last{0, -1, PointStatus::error};
            for (std::size_t k = 0; k < order.size(); ++k) {
                const SampleOrder& point = order[k];
                unsigned long long jitRva = 0;
                std::string lazyModule;
                PointStatus status = m_points.locate(point.time, point.address, point.processId(), point.hostId(),
                                                     jitRva, reason, m_points.lazy() ? &lazyModule : nullptr);
                std::int32_t outcome = -1;
                if (status == PointStatus::resolved && last.jitRva == jitRva) {
                    status = last.status;
                    outcome = last.outcome;
                } else if (status == PointStatus::resolved) {
                    if (m_points.lazy())
                        outcome = intern(lazyModule);
                    else if ((status = m_points.frameRefs(jitRva, refs, reason)) == PointStatus::resolved)
                        outcome = intern(refs, fullNames);
                    last = Answer{jitRva, outcome, status};
                }
                answers[k] = Answer{status == PointStatus::resolved ? jitRva : 0, outcome, status};
            }
            for (std::size_t k = 0; k < order.size(); ++k) {
                const std::size_t i = order[k].index;
                rvaOut[i] = answers[k].jitRva;
                statusOut[i] = static_cast<std::uint8_t>(answers[k].status);
                outcomeOut[i] = answers[k].outcome;
            }
        }
        return py::make_tuple(jitRvas, statuses, outcomeIndex, outcomeColumns());
    }

    /// Warnings and errors that the library logged since the last call.
    std::vector<std::string> takeMessages()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::vector<std::string> result = lines(m_log.str());
        m_log.str("");
        return result;
    }

private:
    struct Outcome {
        std::string module;
        std::vector<StackFrame> frames;
    };

    /// The outcome of frames, made into text the first time that they occur.
    std::int32_t intern(const std::vector<FrameRef>& refs, bool fullNames)
    {
        m_key.clear();
        for (const FrameRef& ref : refs)
            m_key.emplace_back(ref.symbol.get(), ref.location ? ref.location->getLine() : 0);
        // Points come sorted by address, so a point's frames are most often its predecessor's.
        if (m_lastOutcome >= 0 && m_key == m_lastKey)
            return m_lastOutcome;
        m_lastKey.swap(m_key);
        m_lastOutcome = m_outcomeOf.find(m_lastKey);
        if (m_lastOutcome >= 0)
            return m_lastOutcome;
        Outcome outcome;
        outcome.module = moduleName(*refs.front().symbol);
        outcome.frames = textFrames(refs, fullNames);
        m_lastOutcome = add(std::move(outcome));
        m_outcomeOf.insert(m_lastKey, m_lastOutcome);
        return m_lastOutcome;
    }

    /// The outcome of a lazily opened resolver: the module alone.
    std::int32_t intern(const std::string& module)
    {
        const auto known = m_moduleOutcome.find(module);
        if (known != m_moduleOutcome.end())
            return known->second;
        Outcome outcome;
        outcome.module = module;
        const std::int32_t index = add(std::move(outcome));
        m_moduleOutcome.emplace(module, index);
        return index;
    }

    std::int32_t add(Outcome outcome)
    {
        const auto index = static_cast<std::int32_t>(m_outcomes.size());
        m_outcomes.push_back(std::move(outcome));
        return index;
    }

    /// The outcomes as columns of Python objects, each with one more entry for the points without
    /// an outcome; the objects are made for the outcomes new since the last call only, and the
    /// columns again only when there are such.
    py::tuple outcomeColumns()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_objectsGeneration != m_generation) {
            for (py::list& column : m_outcomeObjects)
                column = py::list();
            m_outcomeColumns = py::tuple();
            m_objectsGeneration = m_generation;
        }
        if (m_outcomeColumns.size() != 0 && m_outcomeObjects[0].size() == m_outcomes.size())
            return m_outcomeColumns;
        auto text = [](const std::string& value) { return value.empty() ? py::object(py::none()) : py::str(value); };
        for (std::size_t i = m_outcomeObjects[0].size(); i < m_outcomes.size(); ++i) {
            const Outcome& outcome = m_outcomes[i];
            py::list inlined;
            for (std::size_t f = 1; f < outcome.frames.size(); ++f) {
                const StackFrame& frame = outcome.frames[f];
                py::dict entry;
                entry["method"] = frame.method;
                entry["module"] = text(frame.module);
                entry["source"] = text(frame.source);
                entry["line"] = frame.line ? py::object(py::int_(frame.line)) : py::object(py::none());
                inlined.append(entry);
            }
            const bool named = !outcome.frames.empty();
            const StackFrame outer = named ? outcome.frames.front() : StackFrame();
            m_outcomeObjects[0].append(named ? py::object(py::str(outer.method)) : py::object(py::none()));
            m_outcomeObjects[1].append(text(outer.className));
            m_outcomeObjects[2].append(text(outcome.module));
            m_outcomeObjects[3].append(text(outer.source));
            m_outcomeObjects[4].append(inlined);
        }
        py::array_t<std::int64_t> lines(m_outcomes.size() + 1); // 0: none
        std::int64_t* line = lines.mutable_data();
        for (const Outcome& outcome : m_outcomes)
            *line++ = outcome.frames.empty() ? 0 : outcome.frames.front().line;
        *line = 0;
        const py::none none;
        m_outcomeColumns =
            py::make_tuple(objectArray(m_outcomeObjects[0], none), objectArray(m_outcomeObjects[1], none),
                           objectArray(m_outcomeObjects[2], none), objectArray(m_outcomeObjects[3], none), lines,
                           objectArray(m_outcomeObjects[4], py::list()));
        return m_outcomeColumns;
    }

    /// A NumPy array of the objects of `items` and then `last`. Made entry by entry: NumPy
    /// would take a list of lists for a two-dimensional array.
    static py::array objectArray(const py::list& items, const py::object& last)
    {
        const std::size_t size = items.size();
        py::array array(py::dtype("O"), std::vector<py::ssize_t>{static_cast<py::ssize_t>(size + 1)});
        auto** slots = static_cast<PyObject**>(array.mutable_data());
        for (std::size_t i = 0; i <= size; ++i) {
            PyObject* item = i < size ? PyList_GET_ITEM(items.ptr(), i) : last.ptr();
            Py_INCREF(item);
            Py_XSETREF(slots[i], item);
        }
        return array;
    }

    std::vector<std::string> m_directories;
    std::vector<std::string> m_symbols;
    std::ostringstream m_log;
    SampleResolver m_points;
    boost::intrusive_ptr<ISymbolResolver> m_listing; ///< of a lazy resolver, for methods()
    std::mutex m_mutex;
    bool m_fullNames = false;
    unsigned int m_generation = 0; ///< counts the times that the outcomes were dropped
    unsigned int m_objectsGeneration = 0;
    std::vector<Outcome> m_outcomes;
    OutcomeTable m_outcomeOf;
    std::unordered_map<std::string, std::int32_t> m_moduleOutcome;
    std::vector<FrameKey> m_key;
    std::vector<FrameKey> m_lastKey; ///< of the last point's outcome, m_lastOutcome
    std::int32_t m_lastOutcome = -1;
    std::array<py::list, 5> m_outcomeObjects; ///< method, class, module, source, inlined
    py::tuple m_outcomeColumns; ///< of outcomeColumns(), for as many outcomes as m_outcomeObjects
};

/// Reads a file of sample points into columns; hosts as codes into a list of names.
py::tuple readSampleColumns(const std::string& path)
{
    boost::system::error_code error;
    if (!boost::filesystem::is_regular_file(path, error))
        raise(PyExc_FileNotFoundError, "no file of sample points: " + path);
    std::vector<SamplePoint> samples;
    std::string message;
    bool good = false;
    {
        py::gil_scoped_release release;
        std::ifstream in(path);
        good = in && readSamples(in, samples, message);
        if (!in.eof() && message.empty())
            message = "could not be read";
    }
    if (!good)
        raise(PyExc_ValueError, path + ": " + message);
    py::array_t<std::uint64_t> times(samples.size());
    py::array_t<std::uint64_t> addresses(samples.size());
    py::array_t<std::uint32_t> pids(samples.size());
    py::array_t<std::int64_t> hostCodes(samples.size());
    std::vector<std::string> hostNames;
    std::unordered_map<std::string, std::int64_t> codes;
    auto* t = times.mutable_data();
    auto* a = addresses.mutable_data();
    auto* p = pids.mutable_data();
    auto* h = hostCodes.mutable_data();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        t[i] = samples[i].time;
        a[i] = samples[i].address;
        p[i] = samples[i].processId;
        const auto code = codes.emplace(samples[i].host, static_cast<std::int64_t>(hostNames.size()));
        if (code.second)
            hostNames.push_back(samples[i].host);
        h[i] = code.first->second;
    }
    return py::make_tuple(times, addresses, pids, hostCodes, hostNames);
}

/// Codes of a column of host names into the distinct names, in the order that they first
/// appear. The column's objects repeat, so they are looked at by identity first and hashed as
/// text only once each.
py::tuple hostCodes(const py::array& values)
{
    if (values.ndim() != 1 || values.dtype().kind() != 'O' || !(values.flags() & py::array::c_style))
        raise(PyExc_TypeError, "the host column must be a one-dimensional array of objects");
    const py::ssize_t count = values.shape(0);
    py::array_t<std::int64_t> codes(count);
    std::int64_t* out = codes.mutable_data();
    PyObject* const* items = static_cast<PyObject* const*>(values.data());
    std::unordered_map<PyObject*, std::int64_t> byObject; // the column keeps its objects alive
    std::unordered_map<std::string, std::int64_t> byName;
    py::list names;
    PyObject* last = nullptr;
    std::int64_t lastCode = -1;
    for (py::ssize_t i = 0; i < count; ++i) {
        if (items[i] != last) {
            last = items[i];
            auto known = byObject.find(last);
            if (known == byObject.end()) {
                if (!PyUnicode_Check(last))
                    raise(PyExc_TypeError, "column 'host' must hold host names (str)");
                Py_ssize_t size = 0;
                const char* text = PyUnicode_AsUTF8AndSize(last, &size);
                if (text == nullptr)
                    throw py::error_already_set();
                const auto named = byName.emplace(std::string(text, static_cast<std::size_t>(size)), byName.size());
                if (named.second)
                    names.append(py::str(text, static_cast<std::size_t>(size)));
                known = byObject.emplace(last, named.first->second).first;
            }
            lastCode = known->second;
        }
        out[i] = lastCode;
    }
    return py::make_tuple(codes, names);
}

/// The objects of `values` at `index`; an index of -1 takes the last. NumPy's own indexing copies
/// object entries one by one through a generic path, several times slower than this.
py::array takeObjects(const py::array& values, const py::array_t<std::int32_t, py::array::c_style>& index)
{
    if (values.ndim() != 1 || values.dtype().kind() != 'O' || !(values.flags() & py::array::c_style) ||
        values.shape(0) == 0)
        raise(PyExc_TypeError, "the values must be a non-empty one-dimensional array of objects");
    const py::ssize_t size = values.shape(0);
    const py::ssize_t count = index.size();
    py::array result(py::dtype("O"), std::vector<py::ssize_t>{count});
    PyObject* const* from = static_cast<PyObject* const*>(values.data());
    auto** to = static_cast<PyObject**>(result.mutable_data());
    const std::int32_t* at = index.data();
    for (py::ssize_t i = 0; i < count; ++i) {
        const py::ssize_t k = at[i] == -1 ? size - 1 : at[i];
        if (k < 0 || k >= size)
            raise(PyExc_IndexError, "index " + std::to_string(k) + " is out of range");
        PyObject* item = from[k];
        Py_INCREF(item);
        Py_XSETREF(to[i], item);
    }
    return result;
}

} // namespace

PYBIND11_MODULE(_jitreader, module)
{
    module.doc() = "Reads JIT trace result directories and resolves sample points.";
    py::class_<ResolverBinding>(module, "Resolver")
        .def(py::init<const std::vector<std::string>&, const std::vector<std::string>&, bool, py::object>(),
             py::arg("dirs"), py::arg("symbols"), py::arg("lazy"), py::arg("progress"))
        .def("processes", &ResolverBinding::processes)
        .def("methods", &ResolverBinding::methods)
        .def("resolve", &ResolverBinding::resolve)
        .def("take_messages", &ResolverBinding::takeMessages);
    module.def("read_sample_columns", &readSampleColumns, py::arg("path"));
    module.def("host_codes", &hostCodes, py::arg("values"));
    module.def("take_objects", &takeObjects, py::arg("values"), py::arg("index"));
    py::list names;
    for (int status = 0; status < kPointStatusCount; ++status)
        names.append(statusName(static_cast<PointStatus>(status)));
    module.attr("STATUS_NAMES") = names;
}
