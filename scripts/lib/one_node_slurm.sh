# shellcheck shell=bash
# Sourced: a Slurm cluster of this one machine, to test the job scripts of docs/scaling.md.
# Needs root and the packages slurm-wlm and munge. Writes only to the given folder.

# start_slurm FOLDER: starts the daemons and exports SLURM_CONF for the commands.
start_slurm() {
  local at=$1 node cpus memory
  node=$(hostname -s)
  cpus=$(nproc)
  memory=$(($(awk '/MemTotal/ { print $2 }' /proc/meminfo) * 9 / 10240))
  mkdir -p "$at/state" "$at/spool"
  chmod 700 "$at"
  /usr/sbin/mungekey --create --keyfile="$at/key"
  /usr/sbin/munged --force --key-file="$at/key" --socket="$at/munge.socket" \
    --pid-file="$at/munged.pid" --log-file="$at/munged.log" --seed-file="$at/seed"
  cat >"$at/slurm.conf" <<END
ClusterName=one
SlurmctldHost=$node
AuthType=auth/munge
AuthInfo=socket=$at/munge.socket
CredType=cred/munge
SlurmUser=root
SlurmctldPort=16817
SlurmdPort=16818
StateSaveLocation=$at/state
SlurmdSpoolDir=$at/spool
SlurmctldPidFile=$at/slurmctld.pid
SlurmdPidFile=$at/slurmd.pid
SlurmctldLogFile=$at/slurmctld.log
SlurmdLogFile=$at/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
DefMemPerCPU=512
SchedulerParameters=sched_interval=1
NodeName=$node CPUs=$cpus RealMemory=$memory State=UNKNOWN
PartitionName=main Nodes=ALL Default=YES MaxTime=INFINITE State=UP
END
  export SLURM_CONF=$at/slurm.conf
  /usr/sbin/slurmctld
  /usr/sbin/slurmd
  # Up when the controller answers and the node has registered.
  for _ in $(seq 60); do
    sinfo -h -o %T 2>/dev/null | grep -q idle && return 0
    sleep 0.5
  done
  echo "Slurm did not come up; see $at/*.log" >&2
  return 1
}

# stop_slurm FOLDER: ends the daemons that start_slurm started, and waits: they write to the folder.
stop_slurm() {
  local daemon pid
  for daemon in slurmd slurmctld munged; do
    [ -f "$1/$daemon.pid" ] || continue
    pid=$(cat "$1/$daemon.pid")
    kill "$pid" 2>/dev/null || continue
    for _ in $(seq 100); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
  done
}
