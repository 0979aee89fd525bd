// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundServer.h"

#include "Logging.h"

#include <memory>
#include <pulse/glib-mainloop.h>
#include <pulse/pulseaudio.h>
#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <set>
#include <vector>

namespace {
const QString category = QStringLiteral("sound");

QString sinkName(const QString &id)
{
    return QLatin1String(SoundServer::sinkPrefix) + id;
}

// What an asynchronous call needs to find its output again, if it is still there.
struct Call
{
    SoundServer *server;
    QString id;
};
} // namespace

SoundServer::SoundServer(Callbacks callbacks, QObject *parent)
    : QObject(parent), m_callbacks(std::move(callbacks))
{
}

SoundServer::~SoundServer()
{
    for (auto &[id, output] : m_outputs) {
        if (output.stream) {
            pa_stream_set_read_callback(output.stream, nullptr, nullptr);
            pa_stream_disconnect(output.stream);
            pa_stream_unref(output.stream);
        }
    }
    if (m_context) {
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
    }
    if (m_loop)
        pa_glib_mainloop_free(m_loop);
}

bool SoundServer::mainLoopUsable()
{
    const QAbstractEventDispatcher *dispatcher = QAbstractEventDispatcher::instance();
    return dispatcher && QByteArray(dispatcher->metaObject()->className()).contains("Glib");
}

bool SoundServer::connected() const
{
    return m_context && pa_context_get_state(m_context) == PA_CONTEXT_READY;
}

QString SoundServer::sinkArguments(const QString &id, const QString &name)
{
    QString description = name;
    description.replace(QLatin1Char('"'), QChar(0x201D))
        .replace(QLatin1Char('\''), QChar(0x2019))
        .replace(QLatin1Char('\\'), QLatin1Char('/'));
    return QStringLiteral("sink_name=%1 rate=44100 channels=2 format=s16le "
                          "sink_properties='device.description=\"%2\" "
                          "device.icon_name=audio-speakers'")
        .arg(sinkName(id), description);
}

void SoundServer::connectToServer()
{
    if (m_context) {
        const pa_context_state_t state = pa_context_get_state(m_context);
        if (state != PA_CONTEXT_FAILED && state != PA_CONTEXT_TERMINATED)
            return;
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
        pa_context_unref(m_context);
        m_context = nullptr;
    }
    if (!m_loop)
        m_loop = pa_glib_mainloop_new(nullptr);
    pa_proplist *properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Corvel");
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "org.corvel.Corvel");
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ICON_NAME, "corvel");
    m_context =
        pa_context_new_with_proplist(pa_glib_mainloop_get_api(m_loop), "Corvel", properties);
    pa_proplist_free(properties);
    pa_context_set_state_callback(m_context, &SoundServer::contextState, this);
    // A refused connection has usually been reported through the state callback already.
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 &&
        pa_context_get_state(m_context) != PA_CONTEXT_FAILED)
        lost(QString::fromUtf8(pa_strerror(pa_context_errno(m_context))));
}

void SoundServer::contextState(pa_context *context, void *userdata)
{
    auto *self = static_cast<SoundServer *>(userdata);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        self->ready();
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        self->lost(QString::fromUtf8(pa_strerror(pa_context_errno(context))));
        break;
    default:
        break;
    }
}

void SoundServer::lost(const QString &error)
{
    logWarning(category, QStringLiteral("No sound server: ") + error);
    m_pendingLoads = m_pendingUnloads = 0; // a lost connection ends its calls unanswered
    for (auto &[id, output] : m_outputs) {
        if (output.stream) {
            pa_stream_set_read_callback(output.stream, nullptr, nullptr);
            pa_stream_unref(output.stream);
        }
        const bool wasPlaying = output.playing;
        output = Output{.name = output.name, .server = this, .id = id};
        if (wasPlaying && m_callbacks.playing)
            m_callbacks.playing(id, false);
    }
    if (m_callbacks.connection)
        m_callbacks.connection(false, error);
}

void SoundServer::ready()
{
    logInfo(category, QStringLiteral("Connected to the sound server (%1)")
                          .arg(QString::fromUtf8(pa_context_get_server(m_context))));
    pa_context_set_subscribe_callback(
        m_context,
        [](pa_context *, pa_subscription_event_type_t type, uint32_t index, void *userdata) {
            auto *self = static_cast<SoundServer *>(userdata);
            const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
            if (facility == PA_SUBSCRIPTION_EVENT_SINK_INPUT)
                self->refreshInputs();
            else if (facility == PA_SUBSCRIPTION_EVENT_SINK &&
                     (type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_CHANGE)
                self->readVolume(index);
        },
        this);
    pa_operation_unref(pa_context_subscribe(
        m_context,
        pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SINK_INPUT),
        nullptr, nullptr));
    // Sinks of a Corvel that ended without removing them would stand beside the new ones.
    sweep();
    if (m_callbacks.connection)
        m_callbacks.connection(true, {});
    for (auto &[id, output] : m_outputs)
        load(id);
}

void SoundServer::addOutput(const QString &id, const QString &name)
{
    Output &output = m_outputs[id];
    output.name = name;
    output.server = this;
    output.id = id;
    if (connected())
        load(id);
}

void SoundServer::load(const QString &id)
{
    Output &output = m_outputs[id];
    if (output.loading || output.module != PA_INVALID_INDEX)
        return;
    output.loading = true;
    ++m_pendingLoads;
    pa_operation_unref(pa_context_load_module(
        m_context, "module-null-sink", sinkArguments(id, output.name).toUtf8().constData(),
        [](pa_context *context, uint32_t index, void *userdata) {
            std::unique_ptr<Call> call(static_cast<Call *>(userdata));
            --call->server->m_pendingLoads;
            const auto found = call->server->m_outputs.find(call->id);
            if (found == call->server->m_outputs.end()) {
                // Removed while the server made it.
                if (index != PA_INVALID_INDEX)
                    call->server->unload(index);
                return;
            }
            found->second.loading = false;
            if (index == PA_INVALID_INDEX) {
                logError(category,
                         QStringLiteral("The sound server refused an output for %1: %2")
                             .arg(found->second.name,
                                  QString::fromUtf8(pa_strerror(pa_context_errno(context)))));
                return;
            }
            found->second.module = index;
            pa_operation_unref(pa_context_get_sink_info_by_name(
                context, sinkName(call->id).toUtf8().constData(),
                [](pa_context *, const pa_sink_info *info, int eol, void *userdata) {
                    auto *call = static_cast<Call *>(userdata);
                    if (eol != 0) {
                        delete call;
                        return;
                    }
                    call->server->record(call->id, info->index,
                                         QString::fromUtf8(info->monitor_source_name));
                },
                new Call{call->server, call->id}));
        },
        new Call{this, id}));
}

void SoundServer::record(const QString &id, quint32 sinkIndex, const QString &monitor)
{
    const auto found = m_outputs.find(id);
    if (found == m_outputs.end() || found->second.stream)
        return;
    Output &output = found->second;
    output.sink = sinkIndex;
    const pa_sample_spec format{PA_SAMPLE_S16LE, 44100, 2};
    output.stream =
        pa_stream_new(m_context, ("Corvel: " + output.name).toUtf8().constData(), &format, nullptr);
    if (!output.stream) {
        logError(category, QStringLiteral("Cannot record the output for ") + output.name);
        return;
    }
    pa_stream_set_read_callback(
        output.stream,
        [](pa_stream *stream, size_t, void *userdata) {
            auto *output = static_cast<Output *>(userdata);
            const void *data = nullptr;
            size_t size = 0;
            // With nothing left to read, the peek gives no data and a size of 0.
            while (pa_stream_peek(stream, &data, &size) == 0 && size > 0) {
                // A hole in the recording is silence.
                const QByteArray pcm =
                    data ? QByteArray(static_cast<const char *>(data), qsizetype(size))
                         : QByteArray(qsizetype(size), '\0');
                pa_stream_drop(stream);
                if (output->server->m_callbacks.audio)
                    output->server->m_callbacks.audio(output->id, pcm);
            }
        },
        &output);
    const uint32_t fragment = uint32_t(pa_usec_to_bytes(fragmentMs * 1000, &format));
    // A recording takes only its fragment size; the server chooses the rest.
    const pa_buffer_attr attributes{.maxlength = serverChooses,
                                    .tlength = serverChooses,
                                    .prebuf = serverChooses,
                                    .minreq = serverChooses,
                                    .fragsize = fragment};
    if (pa_stream_connect_record(
            output.stream, monitor.toUtf8().constData(), &attributes,
            pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE)) < 0) {
        logError(category,
                 QStringLiteral("Cannot record %1: %2")
                     .arg(monitor, QString::fromUtf8(pa_strerror(pa_context_errno(m_context)))));
        return;
    }
    logInfo(category, QStringLiteral("Sound output ready: ") + output.name);
    readVolume(sinkIndex);
    refreshInputs();
}

SoundServer::Output *SoundServer::outputForSink(quint32 sinkIndex)
{
    for (auto &[id, output] : m_outputs) {
        if (output.sink == sinkIndex && sinkIndex != PA_INVALID_INDEX)
            return &output;
    }
    return nullptr;
}

void SoundServer::refreshInputs()
{
    // A burst of events costs one listing.
    if (!connected())
        return;
    if (m_inputsQueued) {
        m_inputsAgain = true;
        return;
    }
    m_inputsQueued = true;
    auto *playing = new std::set<quint32>; // the sinks something plays into
    pa_operation_unref(pa_context_get_sink_input_info_list(
        m_context,
        [](pa_context *, const pa_sink_input_info *info, int eol, void *userdata) {
            auto *found = static_cast<std::pair<SoundServer *, std::set<quint32> *> *>(userdata);
            if (eol == 0) {
                // A paused player keeps its stream, corked: that is not sound.
                if (!info->corked)
                    found->second->insert(info->sink);
                return;
            }
            SoundServer *self = found->first;
            self->m_inputsQueued = false;
            std::vector<std::pair<QString, bool>> changes;
            for (auto &[id, output] : self->m_outputs) {
                const bool now = found->second->count(output.sink) > 0;
                if (now != output.playing) {
                    output.playing = now;
                    logInfo(category, QStringLiteral("%1 %2").arg(
                                          output.name, now ? QStringLiteral("receives sound")
                                                           : QStringLiteral("is quiet")));
                    changes.emplace_back(id, now);
                }
            }
            // Told after the loop: what a listener does may remove outputs.
            for (const auto &[id, now] : changes) {
                if (self->m_callbacks.playing)
                    self->m_callbacks.playing(id, now);
            }
            if (self->m_inputsAgain) {
                self->m_inputsAgain = false;
                self->refreshInputs();
            }
            delete found->second;
            delete found;
        },
        new std::pair<SoundServer *, std::set<quint32> *>(this, playing)));
}

void SoundServer::readVolume(quint32 sinkIndex)
{
    if (!outputForSink(sinkIndex))
        return;
    pa_operation_unref(pa_context_get_sink_info_by_index(
        m_context, sinkIndex,
        [](pa_context *, const pa_sink_info *info, int eol, void *userdata) {
            auto *self = static_cast<SoundServer *>(userdata);
            if (eol != 0)
                return;
            Output *output = self->outputForSink(info->index);
            if (!output)
                return;
            const int percent =
                info->mute
                    ? 0
                    : int((quint64(pa_cvolume_max(&info->volume)) * 100 + PA_VOLUME_NORM / 2) /
                          PA_VOLUME_NORM);
            if (percent == output->volume)
                return;
            const bool first = output->volume < 0;
            output->volume = percent;
            // The sink's first volume is the server's default, not a choice of the user's.
            if (!first && self->m_callbacks.volume)
                self->m_callbacks.volume(output->id, std::min(percent, 100));
        },
        this));
}

void SoundServer::removeOutput(const QString &id)
{
    const auto found = m_outputs.find(id);
    if (found == m_outputs.end())
        return;
    Output &output = found->second;
    if (output.stream) {
        pa_stream_set_read_callback(output.stream, nullptr, nullptr);
        pa_stream_disconnect(output.stream);
        pa_stream_unref(output.stream);
    }
    if (output.module != PA_INVALID_INDEX && connected())
        unload(output.module);
    logInfo(category, QStringLiteral("Sound output removed: ") + output.name);
    m_outputs.erase(found);
}

void SoundServer::unload(quint32 module)
{
    ++m_pendingUnloads;
    pa_operation_unref(pa_context_unload_module(
        m_context, module,
        [](pa_context *, int, void *userdata) {
            --static_cast<SoundServer *>(userdata)->m_pendingUnloads;
        },
        this));
}

void SoundServer::sweep()
{
    // Every module that made a sink of Corvel's name is unloaded; counted as pending until
    // the server has listed them all.
    ++m_pendingUnloads;
    pa_operation_unref(pa_context_get_module_info_list(
        m_context,
        [](pa_context *, const pa_module_info *info, int eol, void *userdata) {
            auto *self = static_cast<SoundServer *>(userdata);
            if (eol) {
                --self->m_pendingUnloads;
                return;
            }
            if (!info->argument ||
                !QByteArray(info->argument).contains(QByteArray("sink_name=") + sinkPrefix))
                return;
            logInfo(category,
                    QStringLiteral("Removing a sound output left behind: ") +
                        QString::fromUtf8(info->argument).section(QLatin1Char(' '), 0, 0));
            self->unload(info->index);
        },
        this));
}

void SoundServer::removeAll(int timeoutMs)
{
    while (!m_outputs.empty())
        removeOutput(m_outputs.begin()->first);
    const QDeadlineTimer deadline(timeoutMs);
    QEventLoop loop;
    // Loads still on their way end in an unload too, and a last sweep takes any output whose
    // module this session lost track of: no output outlives Corvel.
    const auto wait = [&] {
        while ((m_pendingUnloads > 0 || m_pendingLoads > 0) && connected() &&
               !deadline.hasExpired())
            loop.processEvents(QEventLoop::ExcludeUserInputEvents | QEventLoop::WaitForMoreEvents,
                               20);
    };
    wait();
    if (connected()) {
        sweep();
        wait();
    }
}
