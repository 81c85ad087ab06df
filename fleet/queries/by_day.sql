-- How did a hang develop, day by day: incidents, and per thousand active devices?
--   from       first day
--   to         last day
--   signature  the id of one hang; empty: of all ()
-- per_thousand is empty for a day of which no device was counted active.
SELECT
    day, sum(count_of_day) AS incidents, sum(devices_of_day) AS active_devices,
    if(active_devices = 0, NULL, round(1000 * incidents / active_devices, 3)) AS per_thousand
FROM
(
    SELECT day, uniqExactMerge(incidents) AS count_of_day, toUInt64(0) AS devices_of_day
    FROM fleet.incidents_by_day
    WHERE day BETWEEN {from:Date} AND {to:Date}
        AND ({signature:String} = '' OR signature_id = {signature:String})
    GROUP BY day
    UNION ALL
    SELECT day, toUInt64(0) AS count_of_day, sum(devices) AS devices_of_day
    FROM fleet.active_devices FINAL
    WHERE day BETWEEN {from:Date} AND {to:Date}
    GROUP BY day
)
GROUP BY day
ORDER BY day
