<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * The settings server did not answer in time. The next call connects again.
 */
final class TimeoutException extends ConnectionException
{
}
