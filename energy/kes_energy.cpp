#include "kes_energy.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore.h>

#include <tinyxml.h>

#include "kes_commandlineparser.h"
#include "kes_energy_davis_meteo.h"
#include "kes_energy_line.h"
#include "kes_energy_mira.h"
#include "kes_enerysystem.h"
#include "kes_osutility.h"
#include "kes_time.h"

namespace kes {
namespace Energy {

namespace {

const char* const APPLICATION_VERSION = "0.2.2.";
const char* const APPLICATION_PATCH = "0";
const char* const FRAMEWORK_VERSION = "0.5.0";
const unsigned int LOG_FILE_SIZE = 512000;
const unsigned int TERM_WAIT_MS = 0xFFFFFFFF;

const char* const HELP_TEXT = "\nKes. Energy Command Help\n"
                              "-conf configuration file ------ [e.g - \"/data/conf.xml\" or \"./conf.xml\"]\n"
                              "-dir data directory ----------- [e.g - \"/data\" or \"./data\"]\n"
                              "-history History time --------- [e.g - save data every minute, possible values are "
                              "1-2-3-4-5-6-10-12-15-20-30-60]\n"
                              "-version appliation version --- [e.g - 1.0.0]\n"
                              "-fversion fremwork version ---- [e.g - 1.0.0]\n"
                              "-log log file name ------------ [file application log]\n";

// A path option that must name something that exists, and its reports.
struct kesPathOption {
    const char* option;
    bool (*exists)(const char*);
    const char* notFound;
    const char* invalid;
    const char* missing;
};

const kesPathOption CONFIGURATION_OPTION = {"-conf", &kesOsUtility::FileExist, "Configuration file not found",
                                            "Configuration file is invalid", "Configuration file does not exist"};
const kesPathOption DIRECTORY_OPTION = {"-dir", &kesOsUtility::FolderExist, "Data directory not found",
                                        "Data directory is invalid", "Data directory does not exist"};

// The records name the caller.
kesEError required_path(kesCommandLineParser& parser, const kesPathOption& path, kesString* o_path,
                        const char* function)
{
    kesString value;
    if (!parser.GetArgument(path.option, &value))
        return KES_LOG_IN(kesErrorInvalidArgument, path.notFound, function);
    if (value.empty())
        return KES_LOG_IN(kesErrorInvalidArgument, path.invalid, function);
    if (!path.exists(value.c_str()))
        return KES_LOG_IN(kesErrorInvalidArgument, path.missing, function);
    *o_path = value;
    return kesErrorOk;
}

// The handler may only post: the event's mutex is not safe in a signal handler.
sem_t g_sigterm_semaphore;
bool g_sigterm_semaphore_ready = false;

bool ensure_sigterm_semaphore()
{
    if (!g_sigterm_semaphore_ready && sem_init(&g_sigterm_semaphore, 0, 0) == 0)
        g_sigterm_semaphore_ready = true;
    return g_sigterm_semaphore_ready;
}

} // namespace

unsigned char kesHistoryTimeFromValue(unsigned long value)
{
    unsigned int n = static_cast<unsigned char>(value);
    if (n == 0 || n > 60)
        return 60;
    while (60 % n != 0)
        ++n;
    return static_cast<unsigned char>(n);
}

unsigned short kesEnergy::MiraPort = MIRA_PORT;

kesEnergy::kesEnergy() : m_uHistoryTime(60), m_pDavisMeteo(nullptr), m_pSigtermRelay(nullptr), m_bRelayQuit(false)
{
    m_eTerm.Reset();
    ensure_sigterm_semaphore();
}

kesEnergy::~kesEnergy()
{
    // After a failed wait Term is skipped: no thread may outlive the object.
    stop_all();
    stop_sigterm_relay();
}

kesString kesEnergy::GetVersion()
{
    return kesString(APPLICATION_VERSION) + GetPatch();
}

kesString kesEnergy::GetPatch()
{
    return APPLICATION_PATCH;
}

kesString kesEnergy::GetInfo()
{
    kesString info;
    info += "\nVersion ------- : ";
    info += GetVersion();
    info += "\nFrame Version - : ";
    info += FRAMEWORK_VERSION;
    info += "\nBuild --------- : ";
    info += __DATE__;
    info += "\nDescription --- : Tessel Os";
    info += "\nStart --------- : ";
    info += kesTime::GetDateTime();
    info += "\n";
    return info;
}

kesEError kesEnergy::Init(int argc, char** argv)
{
    kesCommandLineParser parser(argv, argc);
    kesString value;

    if (parser.GetArgument("-h", nullptr)) {
        puts(HELP_TEXT);
        exit(0);
    }
    if (parser.GetArgument("-version", nullptr)) {
        puts(GetVersion().c_str());
        exit(0);
    }
    if (parser.GetArgument("-fversion", nullptr)) {
        puts(FRAMEWORK_VERSION);
        exit(0);
    }

    if (parser.GetArgument("-log", &value) && !value.empty()) {
        kesError::Level |= kesErrorOutFile;
        kesError::LogFile = value;
        kesError::LogFileSize = LOG_FILE_SIZE;
    }

    if (parser.GetArgument("-history", &value) && !value.empty()) {
        unsigned long requested = kesString::AsULong(value, 10);
        if (static_cast<unsigned char>(requested) == 0)
            KES_LOG(kesErrorWarning, kesString("History Time ") + value + " is not valid, the default is kept");
        m_uHistoryTime = kesHistoryTimeFromValue(requested);
        KES_LOG(kesErrorOk, kesString("History Time changed to ") + kesString::FromInt(m_uHistoryTime) + " minutes");
    }

    kesEError result = required_path(parser, CONFIGURATION_OPTION, &m_sConfigurationPath, "Init");
    if (result == kesErrorOk)
        result = required_path(parser, DIRECTORY_OPTION, &m_sDataDirectory, "Init");
    return result;
}

bool kesEnergy::InstallSigtermHandler()
{
    if (!ensure_sigterm_semaphore())
        return false;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_sigint;
    return sigaction(SIGTERM, &action, nullptr) == 0;
}

kesEError kesEnergy::Execute()
{
    if (!start_sigterm_relay() || !InstallSigtermHandler())
        return KES_LOG_STD(kesErrorFailed, "Can not install the SIGTERM handler");

    if (configure_system() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Configuration failed");
    if (m_History.Init(static_cast<unsigned int>(m_uHistoryTime)) != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not init history system");
    m_History.SetHistoryFolder(m_sDataDirectory);
    if (m_History.Start() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not start history system");

    kesEnergySystem::EXECUTION_COUNT = 2;
    // A SIGTERM during the start-up leaves the remaining lines unstarted.
    for (size_t i = 0; i < m_aLines.size() && !kesOsTcpSocket::IsConnectAborted(); ++i) {
        if (m_aLines[i]->Start(kesEnergyLine::RECEIVE_TIMEOUT, kesEnergyLine::ANSWER_PAUSE,
                               kesEnergyLine::FAILURE_PAUSE) != kesErrorOk)
            KES_LOG(kesErrorFailed, kesString("Can not start line ") + kesString::FromInt(m_aLines[i]->GetUniqueID()));
    }
    if (m_pDavisMeteo && !kesOsTcpSocket::IsConnectAborted()) {
        m_pDavisMeteo->SetHistoryFolder(m_sDataDirectory);
        if (m_pDavisMeteo->Start() != kesErrorOk)
            KES_LOG(kesErrorFailed, "Can not start davis meteo");
    }

    if (m_eTerm.WaitSignal(TERM_WAIT_MS))
        return kesErrorOk;
    return KES_LOG(kesErrorFailed, "Event term without segnalization");
}

kesEError kesEnergy::Term()
{
    clear_line_list();
    if (m_History.Stop() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not stop history system");
    clear_dataaddress_map();
    return kesErrorOk;
}

// Lines first, so that no polling thread still feeds the store when it stops.
void kesEnergy::stop_all()
{
    clear_line_list();
    m_History.Stop();
    clear_dataaddress_map();
}

void kesEnergy::add_to_line_list(kesEnergyLine* line)
{
    m_aLines.AddBack(line);
}

void kesEnergy::clear_line_list()
{
    for (size_t i = 0; i < m_aLines.size(); ++i)
        m_aLines[i]->RequestStop();
    for (size_t i = 0; i < m_aLines.size(); ++i) {
        m_aLines[i]->Stop();
        delete m_aLines[i];
    }
    m_aLines.clear();
    m_mKeyLine.clear();
    if (m_pDavisMeteo) {
        m_pDavisMeteo->Stop();
        delete m_pDavisMeteo;
        m_pDavisMeteo = nullptr;
    }
}

void kesEnergy::on_sigint(int)
{
    int saved = errno;
    if (g_sigterm_semaphore_ready)
        sem_post(&g_sigterm_semaphore);
    errno = saved;
}

bool kesEnergy::start_sigterm_relay()
{
    if (m_pSigtermRelay)
        return true;
    if (!g_sigterm_semaphore_ready)
        return false;
    m_bRelayQuit = false;
    m_pSigtermRelay = new (std::nothrow) kesOsThread(sigterm_relay_proc, this, false);
    if (!m_pSigtermRelay) {
        KES_LOG(kesErrorOutOfMemory, "Can not create the SIGTERM relay");
        return false;
    }
    if (!m_pSigtermRelay->Start(65536)) {
        delete m_pSigtermRelay;
        m_pSigtermRelay = nullptr;
        return false;
    }
    return true;
}

void kesEnergy::stop_sigterm_relay()
{
    if (!m_pSigtermRelay)
        return;
    m_bRelayQuit = true;
    sem_post(&g_sigterm_semaphore);
    m_pSigtermRelay->Stop();
    delete m_pSigtermRelay;
    m_pSigtermRelay = nullptr;
}

// Turns each posted SIGTERM into a signal of the termination event, outside the handler.
void kesEnergy::sigterm_relay_proc(kesOsThread*, void* argument)
{
    kesEnergy* self = static_cast<kesEnergy*>(argument);
    for (;;) {
        while (sem_wait(&g_sigterm_semaphore) != 0 && errno == EINTR) {
        }
        if (self->m_bRelayQuit)
            return;
        // a gateway that drops connection attempts must not hold the stop
        kesOsTcpSocket::SetConnectAbort(true);
        if (!self->m_eTerm.Signal())
            KES_LOG(kesErrorFailed, "Term Event not segnalized");
    }
}

} // namespace Energy
} // namespace kes
