-- Which hangs does a period have most of, and how many of the active devices do they hit?
--   from      first day
--   to        last day
--   program   of this program alone; empty: of all ()
--   top       number of hangs (20)
-- devices_per_thousand counts against the devices that are active on a day of the period, in the mean.
-- Grouped by a hash, which is faster than by a text; the texts come from the roll-up, which has few rows.
SELECT
    id AS signature_id, of_program AS program, of_watch AS watch, reason, incidents, devices,
    round(1000 * devices / (
        SELECT sum(devices) / uniqExact(day) FROM fleet.active_devices FINAL
        WHERE day BETWEEN {from:Date} AND {to:Date}
    ), 3) AS devices_per_thousand,
    first_seen, last_seen, text AS signature
FROM
(
    SELECT
        cityHash64(signature_id) AS hang, any(signature_id) AS id, count() AS incidents,
        uniqExact(cityHash64(device)) AS devices, min(time) AS first_seen, max(time) AS last_seen
    FROM fleet.incidents FINAL
    WHERE day BETWEEN {from:Date} AND {to:Date}
        AND ({program:String} = '' OR program = {program:String})
    GROUP BY hang
)
ANY LEFT JOIN
(
    SELECT
        cityHash64(signature_id) AS hang, any(program) AS of_program, any(watch) AS of_watch,
        any(reason_kind) AS reason, any(signature) AS text
    FROM fleet.incidents_by_day
    WHERE day BETWEEN {from:Date} AND {to:Date}
        AND ({program:String} = '' OR program = {program:String})
    GROUP BY hang
) USING hang
ORDER BY incidents DESC, signature_id
LIMIT {top:UInt32}
