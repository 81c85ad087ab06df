-- Which builds and programs does one hang appear in, and how often for their active devices?
--   signature  the id of the hang
-- per_thousand counts incidents against a thousand devices active for a day; it is 0 for a build that
-- no device was counted active with.
SELECT
    fingerprint, program, incidents, devices, first_seen, last_seen, device_days,
    if(device_days = 0, 0, round(1000 * incidents / device_days, 3)) AS per_thousand
FROM
(
    SELECT
        toString(fingerprint) AS fingerprint, program, count() AS incidents,
        uniqExact(cityHash64(device)) AS devices, min(time) AS first_seen, max(time) AS last_seen
    FROM fleet.incidents FINAL
    WHERE signature_id = {signature:String}
    GROUP BY fingerprint, program
)
ANY LEFT JOIN
(
    SELECT fingerprint, sum(devices) AS device_days FROM fleet.active_devices FINAL
    GROUP BY fingerprint
) USING fingerprint
ORDER BY incidents DESC, fingerprint, program
