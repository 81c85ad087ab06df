-- Tables for a fleet's incidents, as `quorvel-report --rows` prints them. Run it on every shard, with
-- a user that may create tables:
--
--   clickhouse-client --multiquery <fleet/schema.sql
--
-- It expects the clusters `fleet` (whose user may read) and `fleet_intake` (whose user may write) in
-- the server's configuration, and LowCardinality allowed: see fleet/server. It creates nothing twice.

-- What each shard stores itself.
CREATE DATABASE IF NOT EXISTS shard;
-- What is asked: every shard's rows.
CREATE DATABASE IF NOT EXISTS fleet;
-- What is loaded: each row goes to its device's shard.
CREATE DATABASE IF NOT EXISTS intake;

-- One row an incident. A device's program writes one log in a millisecond, so these three are an
-- incident's key: what is loaded twice is merged into one, at the latest by FINAL in a question. The day
-- follows from the millisecond and stands first: a question of some days reads these alone, and FINAL
-- merges faster where most rows differ in the first column.
-- Types are wider than any value that the report tool prints, because this release wraps silently.
-- LowCardinality for long texts, which it stores in less. FINAL merges plain strings faster, so the short
-- ones that questions read are plain. So are stack lists: lists of LowCardinality refuse a block in which
-- all are empty.
-- DEFAULT is not computed for a key that a JSON line omits, MATERIALIZED is.
-- old_parts_lifetime: what retention dropped must not come back at a restart.
-- vertical_merge_...: merge column by column, small parts too, which takes less memory.
-- number_of_free_entries_...: with the pool of four merges in fleet/server/users.xml, the server's own
-- 8 would never allow the largest merges.
CREATE TABLE IF NOT EXISTS shard.incidents
(
    written_ms UInt64,
    armed_seconds Int64,
    file String,
    program String,
    watch String,
    fingerprint LowCardinality(String),
    signature LowCardinality(String),
    signature_id String,
    reason_kind String,
    reason_text LowCardinality(String),
    watched_user Array(String),
    watched_kernel Array(String),
    threads UInt32,
    threads_failed UInt32,
    problems UInt32,
    label_keys Array(String),
    label_values Array(String),
    device String MATERIALIZED if(throwIf(NOT has(label_keys, 'device')) = 0,
        label_values[indexOf(label_keys, 'device')], ''),
    day Date MATERIALIZED if(throwIf(written_ms = 0) = 0,
        toDate(toDateTime(intDiv(written_ms, 1000), 'UTC')), toDate(0)),
    time DateTime('UTC') ALIAS toDateTime(intDiv(written_ms, 1000), 'UTC')
)
ENGINE = ReplacingMergeTree
PARTITION BY toMonday(day)
ORDER BY (day, program, device, written_ms)
SETTINGS old_parts_lifetime = 30, vertical_merge_algorithm_min_rows_to_activate = 1,
    number_of_free_entries_in_pool_to_lower_max_size_of_merge = 2;

-- What a signature's text, program, watch and reason are is read from here, too: it has few rows.
-- A sum would double when a batch is loaded again; the set of the incidents' hashes does not. 64 bits:
-- a hash shared within one signature, build and day is out of practical reach.
CREATE TABLE IF NOT EXISTS shard.incidents_by_day
(
    day Date,
    signature_id String,
    fingerprint LowCardinality(String),
    program String,
    watch String,
    reason_kind String,
    signature LowCardinality(String),
    incidents AggregateFunction(uniqExact, UInt64)
)
ENGINE = AggregatingMergeTree
PARTITION BY toMonday(day)
ORDER BY (day, signature_id, fingerprint)
SETTINGS old_parts_lifetime = 30;

CREATE MATERIALIZED VIEW IF NOT EXISTS shard.fill_incidents_by_day TO shard.incidents_by_day AS
SELECT
    day, signature_id, fingerprint, program, watch, reason_kind, signature,
    uniqExactState(cityHash64(program, device, written_ms)) AS incidents
FROM shard.incidents
GROUP BY day, signature_id, fingerprint, program, watch, reason_kind, signature;

-- Devices that ran a build on a day, by the platform's own counts. A count loaded later replaces
-- the one before it.
CREATE TABLE IF NOT EXISTS shard.active_devices
(
    day Date,
    fingerprint String,
    devices UInt64
)
ENGINE = ReplacingMergeTree
PARTITION BY toMonday(day)
ORDER BY (day, fingerprint)
SETTINGS old_parts_lifetime = 30;

-- Tables to write through name what is sent; tables to read through have the computed columns too,
-- which a table that is written through must not have.
CREATE TABLE IF NOT EXISTS intake.incidents
(
    written_ms UInt64,
    armed_seconds Int64,
    file String,
    program String,
    watch String,
    fingerprint LowCardinality(String),
    signature LowCardinality(String),
    signature_id String,
    reason_kind String,
    reason_text LowCardinality(String),
    watched_user Array(String),
    watched_kernel Array(String),
    threads UInt32,
    threads_failed UInt32,
    problems UInt32,
    label_keys Array(String),
    label_values Array(String)
)
ENGINE = Distributed(fleet_intake, shard, incidents,
    cityHash64(label_values[indexOf(label_keys, 'device')]));

CREATE TABLE IF NOT EXISTS intake.active_devices AS shard.active_devices
ENGINE = Distributed(fleet_intake, shard, active_devices, cityHash64(fingerprint));

CREATE TABLE IF NOT EXISTS fleet.incidents AS shard.incidents
ENGINE = Distributed(fleet, shard, incidents);

CREATE TABLE IF NOT EXISTS fleet.incidents_by_day AS shard.incidents_by_day
ENGINE = Distributed(fleet, shard, incidents_by_day);

CREATE TABLE IF NOT EXISTS fleet.active_devices AS shard.active_devices
ENGINE = Distributed(fleet, shard, active_devices);
