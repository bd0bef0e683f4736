// SPDX-License-Identifier: MIT
#include "report.h"

#include <archive.h>
#include <archive_entry.h>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <gnu/libc-version.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>

#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <utility>

#include "errors.h"
#include "output_file.h"
#include "version.h"

namespace velta::tools {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSettings[] = {
    "sys/kernel/realtime",
    "proc/sys/kernel/sched_rt_runtime_us",
    "proc/sys/kernel/sched_rt_period_us",
    "proc/sys/kernel/timer_migration",
    "proc/sys/net/core/busy_poll",
    "proc/loadavg",
    "sys/devices/system/cpu/online",
    "sys/devices/system/cpu/isolated",
    "sys/devices/system/cpu/nohz_full",
    "sys/devices/system/cpu/smt/active",
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_driver",
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor",
    "sys/devices/system/cpu/cpuidle/current_driver",
    "sys/devices/system/clocksource/clocksource0/current_clocksource",
    "sys/kernel/mm/transparent_hugepage/enabled",
};

/// Words of the kernel's command line that are about time; others may name disks and machines.
constexpr const char* kBootWords[] = {"isolcpus",
                                      "nohz",
                                      "nohz_full",
                                      "rcu_nocbs",
                                      "irqaffinity",
                                      "threadirqs",
                                      "preempt",
                                      "idle",
                                      "nosmt",
                                      "tsc",
                                      "clocksource",
                                      "skew_tick",
                                      "processor.max_cstate",
                                      "intel_idle.max_cstate",
                                      "intel_pstate",
                                      "mitigations"};

std::string FirstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return file ? line : "(not there)";
}

/// @return the value of "KEY=VALUE" or "KEY : VALUE" in a file of such lines, without quotes
std::string ValueOf(const fs::path& path, const std::string& key, char separator) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(key, 0) != 0) continue;
    const std::size_t at = line.find_first_not_of(" \t\"", line.find(separator) + 1);
    if (at == std::string::npos) break;
    return line.substr(at, line.find_last_not_of('"') + 1 - at);
  }
  return "(not there)";
}

std::string BootWords(const fs::path& command_line) {
  std::ifstream file(command_line);
  std::string found;
  for (std::string word; file >> word;) {
    const std::string key = word.substr(0, word.find('='));
    for (const char* const known : kBootWords) {
      if (key == known) found += found.empty() ? word : " " + word;
    }
  }
  return found.empty() ? "(none about time)" : found;
}

std::string LimitText(__rlimit_resource resource) {
  rlimit limit{};
  if (getrlimit(resource, &limit) != 0) return "(unknown)";
  return limit.rlim_cur == RLIM_INFINITY ? "unlimited" : std::to_string(limit.rlim_cur);
}

const char* SchedulerText() {
  switch (sched_getscheduler(0)) {
    case SCHED_OTHER:
      return "other";
    case SCHED_FIFO:
      return "fifo";
    case SCHED_RR:
      return "round robin";
    default:
      return "another one";
  }
}

}  // namespace

std::string VersionsText() {
  utsname kernel{};
  uname(&kernel);
  return fmt::format("velta: {}.{}.{}\nbuilt with: {}\nkernel: {} {} {} {}\nC library: {}\ndistribution: {}\n",
                     VELTA_VERSION::major, VELTA_VERSION::minor, VELTA_VERSION::revision, __VERSION__, kernel.sysname,
                     kernel.release, kernel.version, kernel.machine, gnu_get_libc_version(),
                     ValueOf("/etc/os-release", "PRETTY_NAME", '='));
}

std::string RealtimeText(const fs::path& root) {
  std::string text;
  const auto add = [&](const std::string& name, const std::string& value) { text += name + ": " + value + "\n"; };
  for (const char* const setting : kSettings) add(std::string("/") + setting, FirstLine(root / setting));
  add("kernel's command line", BootWords(root / "proc/cmdline"));
  add("processor", ValueOf(root / "proc/cpuinfo", "model name", ':'));
  add("memory", ValueOf(root / "proc/meminfo", "MemTotal", ':'));
  add("scheduler of this process", SchedulerText());
  add("limit of real-time priority", LimitText(RLIMIT_RTPRIO));
  add("limit of locked memory", LimitText(RLIMIT_MEMLOCK));
  return text;
}

std::string WithoutHost(std::string text, const std::string& host) {
  in_addr address{};
  if (host.empty() || inet_pton(AF_INET, host.c_str(), &address) == 1) return text;
  constexpr const char* kInstead = "(host name)";
  for (std::size_t at = 0; (at = text.find(host, at)) != std::string::npos; at += std::string(kInstead).size()) {
    text.replace(at, host.size(), kInstead);
  }
  return text;
}

void WriteReport(const std::string& path, const std::vector<ReportPart>& parts) {
  OutputFile output(path);
  const std::unique_ptr<archive, decltype(&archive_write_free)> file(archive_write_new(), archive_write_free);
  const auto check = [&](la_ssize_t result) {
    if (result < ARCHIVE_OK) throw analysis::Failure(path + ": " + archive_error_string(file.get()));
  };
  check(archive_write_add_filter_gzip(file.get()));
  check(archive_write_set_format_ustar(file.get()));
  check(archive_write_open_filename(file.get(), output.WorkingPath().c_str()));
  const std::string name = fs::path(path).filename().string();
  const std::string folder = name.substr(0, name.find('.'));
  for (const ReportPart& part : parts) {
    const std::unique_ptr<archive_entry, decltype(&archive_entry_free)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), (folder + "/" + part.name).c_str());
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(part.content.size()));
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
    check(archive_write_header(file.get(), entry.get()));
    check(archive_write_data(file.get(), part.content.data(), part.content.size()));
  }
  check(archive_write_close(file.get()));
  output.Commit();
}

}  // namespace velta::tools
