-- Which watches may have too short a timeout: incidents of watches armed for a few seconds alone?
--   from      first day
--   to        last day
--   seconds   at most this long (2)
-- Incidents whose log does not say how long are left out.
-- Grouped by a hash, which is faster than by two texts.
SELECT of_program AS program, of_watch AS watch, incidents, devices, incidents_of_any_length
FROM
(
    SELECT
        any(program) AS of_program, any(watch) AS of_watch,
        countIf(armed_seconds <= {seconds:UInt32}) AS incidents,
        uniqExactIf(cityHash64(device), armed_seconds <= {seconds:UInt32}) AS devices,
        count() AS incidents_of_any_length
    FROM fleet.incidents FINAL
    WHERE day BETWEEN {from:Date} AND {to:Date} AND armed_seconds > 0
    GROUP BY cityHash64(program, watch)
)
WHERE incidents > 0
ORDER BY incidents DESC, program, watch
